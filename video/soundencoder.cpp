#include "video/soundencoder.h"

#include <algorithm>
#include <cstdlib>

#include "video/input.h"
#include "video/output.h"
#include "video/streamcopy.h"

namespace {

constexpr std::int64_t kBitsPerChannel = 96'000;

int NearestRate(const AVCodec& encoder, int rate) {
  if (!encoder.supported_samplerates) return rate;
  int best = encoder.supported_samplerates[0];
  for (const int* candidate = encoder.supported_samplerates; *candidate != 0; ++candidate)
    if (std::abs(*candidate - rate) < std::abs(best - rate)) best = *candidate;
  return best;
}

/// The source's layout or one with as many channels; otherwise the largest that has fewer.
void ChooseLayout(const AVCodec& encoder, const AVChannelLayout& source, AVChannelLayout& chosen) {
  if (!encoder.ch_layouts) {
    av_channel_layout_default(&chosen, source.nb_channels);
    if (source.order != AV_CHANNEL_ORDER_UNSPEC) av_channel_layout_copy(&chosen, &source);
    return;
  }
  const AVChannelLayout* best = encoder.ch_layouts;
  for (const AVChannelLayout* layout = best; layout->nb_channels != 0; ++layout) {
    if (layout->nb_channels > source.nb_channels) continue;
    if (best->nb_channels > source.nb_channels || layout->nb_channels > best->nb_channels ||
        av_channel_layout_compare(layout, &source) == 0)
      best = layout;
  }
  av_channel_layout_copy(&chosen, best);
}

std::string LayoutText(const AVChannelLayout& layout) {
  char text[256] = {};
  av_channel_layout_describe(&layout, text, sizeof text);
  return text;
}

}  // namespace

SoundEncoder::SoundEncoder(const Input& input, const AVStream& stream, Output& output, const AVCodec& encoder,
                           bool fillsStart)
    : m_sourceBase(stream.time_base),
      m_decoder(stream, input.FileName(), 1),
      m_output(output),
      m_pEncoder(Allocated(avcodec_alloc_context3(&encoder))),
      m_pTarget(nullptr),
      m_fillsStart(fillsStart) {
  AVCodecContext& context = *m_pEncoder;
  context.sample_fmt = encoder.sample_fmts ? encoder.sample_fmts[0] : AV_SAMPLE_FMT_S16;
  context.sample_rate = NearestRate(encoder, stream.codecpar->sample_rate);
  ChooseLayout(encoder, stream.codecpar->ch_layout, context.ch_layout);
  context.bit_rate = kBitsPerChannel * context.ch_layout.nb_channels;
  context.time_base = {1, context.sample_rate};
  if ((output.Format().oformat->flags & AVFMT_GLOBALHEADER) != 0)
    context.flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  const std::string what = std::string("cannot start the encoder ") + encoder.name;
  Check(avcodec_open2(&context, &encoder, nullptr), what);
  m_pTarget = &output.AddStream();
  Check(avcodec_parameters_from_context(m_pTarget->codecpar, &context), what);
  m_pTarget->time_base = context.time_base;
  CopyTags(stream, *m_pTarget, true);
}

void SoundEncoder::Take(AVPacket& packet) { Decode(&packet); }

void SoundEncoder::End() {
  Decode(nullptr);
  if (m_chain) {
    m_chain->Push(nullptr);
    Collect();
  }
  Encode(nullptr);
}

void SoundEncoder::Build(const AVChannelLayout& layout, int format, int rate) {
  if (m_chain) {
    m_chain->Push(nullptr);
    Collect();
  }
  m_format = format;
  m_rate = rate;
  m_channels = layout.nb_channels;
  AVChannelLayout source = {};
  if (layout.order == AV_CHANNEL_ORDER_UNSPEC)
    av_channel_layout_default(&source, m_channels);
  else
    av_channel_layout_copy(&source, &layout);
  const std::string arguments = "time_base=" + std::to_string(m_sourceBase.num) + '/' +
                                std::to_string(m_sourceBase.den) + ":sample_rate=" + std::to_string(rate) +
                                ":sample_fmt=" + std::to_string(format) +
                                ":channel_layout=" + LayoutText(source);
  // async=1 fills gaps with silence: encoders derive times from the number of samples.
  const std::string filters = std::string("aresample=async=1") + (m_fillsStart ? ":first_pts=0" : "") +
                              ",aformat=sample_fmts=" + av_get_sample_fmt_name(m_pEncoder->sample_fmt) +
                              ":sample_rates=" + std::to_string(m_pEncoder->sample_rate) +
                              ":channel_layouts=" + LayoutText(m_pEncoder->ch_layout);
  m_chain.emplace("abuffer", arguments, filters, "abuffersink");
  const bool takesAnySize = (m_pEncoder->codec->capabilities & AV_CODEC_CAP_VARIABLE_FRAME_SIZE) != 0;
  if (!takesAnySize && m_pEncoder->frame_size > 0)
    av_buffersink_set_frame_size(&m_chain->Sink(), static_cast<unsigned>(m_pEncoder->frame_size));
}

void SoundEncoder::Decode(const AVPacket* packet) {
  m_decoder.Send(packet);
  const FramePtr frame = NewFrame();
  while (m_decoder.Receive(*frame)) {
    if (frame->format != m_format || frame->sample_rate != m_rate ||
        frame->ch_layout.nb_channels != m_channels)
      Build(frame->ch_layout, frame->format, frame->sample_rate);
    frame->pts = frame->best_effort_timestamp;
    if (frame->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC)
      av_channel_layout_default(&frame->ch_layout, m_channels);
    m_chain->Push(frame.get());
    Collect();
    av_frame_unref(frame.get());
  }
}

void SoundEncoder::Collect() {
  const FramePtr frame = NewFrame();
  while (m_chain->Pull(*frame)) {
    if (frame->pts != AV_NOPTS_VALUE)
      frame->pts =
          av_rescale_q(frame->pts, av_buffersink_get_time_base(&m_chain->Sink()), m_pEncoder->time_base);
    if (m_nextPts != AV_NOPTS_VALUE) frame->pts = std::max(frame->pts, m_nextPts);
    if (frame->pts == AV_NOPTS_VALUE) frame->pts = 0;
    m_nextPts = frame->pts + frame->nb_samples;
    Encode(frame.get());
    av_frame_unref(frame.get());
  }
}

void SoundEncoder::Encode(AVFrame* frame) {
  const std::string what = std::string("encoding by ") + m_pEncoder->codec->name + " failed";
  Check(avcodec_send_frame(m_pEncoder.get(), frame), what);
  const PacketPtr packet = NewPacket();
  while (true) {
    const int result = avcodec_receive_packet(m_pEncoder.get(), packet.get());
    if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return;
    Check(result, what);
    m_output.Write(*packet, m_pTarget->index, m_pEncoder->time_base);
  }
}
