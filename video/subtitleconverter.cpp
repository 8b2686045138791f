#include "video/subtitleconverter.h"

#include <cstring>

#include "video/input.h"
#include "video/output.h"
#include "video/streamcopy.h"

namespace {

constexpr std::size_t kLongestSubtitle = 1 << 16;

}  // namespace

SubtitleConverter::SubtitleConverter(const Input& input, const AVStream& stream, Output& output,
                                     const AVCodec& encoder)
    : m_sourceBase(stream.time_base), m_output(output), m_buffer(kLongestSubtitle) {
  const AVCodec* const codec = avcodec_find_decoder(stream.codecpar->codec_id);
  const std::string what = "cannot convert the subtitles of " + input.FileName();
  m_pDecoder.reset(Allocated(avcodec_alloc_context3(codec)));
  Check(avcodec_parameters_to_context(m_pDecoder.get(), stream.codecpar), what);
  m_pDecoder->pkt_timebase = stream.time_base;
  Check(avcodec_open2(m_pDecoder.get(), codec, nullptr), what);

  m_pEncoder.reset(Allocated(avcodec_alloc_context3(&encoder)));
  m_pEncoder->time_base = kMilliseconds;
  if (m_pDecoder->subtitle_header) {
    const auto size = static_cast<std::size_t>(m_pDecoder->subtitle_header_size);
    m_pEncoder->subtitle_header = static_cast<std::uint8_t*>(Allocated(av_mallocz(size + 1)));
    std::memcpy(m_pEncoder->subtitle_header, m_pDecoder->subtitle_header, size);
    m_pEncoder->subtitle_header_size = m_pDecoder->subtitle_header_size;
  }
  if ((output.Format().oformat->flags & AVFMT_GLOBALHEADER) != 0)
    m_pEncoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  Check(avcodec_open2(m_pEncoder.get(), &encoder, nullptr), what);
  m_pTarget = &output.AddStream();
  Check(avcodec_parameters_from_context(m_pTarget->codecpar, m_pEncoder.get()), what);
  m_pTarget->time_base = kMilliseconds;
  CopyTags(stream, *m_pTarget, true);
}

void SubtitleConverter::Take(AVPacket& packet) {
  AVSubtitle subtitle = {};
  int isWhole = 0;
  if (avcodec_decode_subtitle2(m_pDecoder.get(), &subtitle, &isWhole, &packet) < 0 || isWhole == 0) return;
  if (subtitle.pts == AV_NOPTS_VALUE) subtitle.pts = av_rescale_q(packet.pts, m_sourceBase, AV_TIME_BASE_Q);
  try {
    Encode(subtitle, av_rescale_q(packet.duration, m_sourceBase, kMilliseconds));
  } catch (...) {
    avsubtitle_free(&subtitle);
    throw;
  }
  avsubtitle_free(&subtitle);
}

void SubtitleConverter::Encode(AVSubtitle& subtitle, std::int64_t duration) {
  if (subtitle.num_rects == 0) return;
  const std::int64_t start = subtitle.start_display_time, end = subtitle.end_display_time;
  if (end > start && end != UINT32_MAX) duration = end - start;
  const std::int64_t pts = av_rescale_q(subtitle.pts, AV_TIME_BASE_Q, kMilliseconds) + start;
  subtitle.pts += av_rescale_q(start, kMilliseconds, AV_TIME_BASE_Q);
  subtitle.start_display_time = 0;
  subtitle.end_display_time = static_cast<std::uint32_t>(duration);
  const int size = Check(avcodec_encode_subtitle(m_pEncoder.get(), m_buffer.data(),
                                                 static_cast<int>(m_buffer.size()), &subtitle),
                         "cannot convert a subtitle");
  const PacketPtr packet = NewPacket();
  Check(av_new_packet(packet.get(), size), "cannot convert a subtitle");
  std::memcpy(packet->data, m_buffer.data(), static_cast<std::size_t>(size));
  packet->pts = packet->dts = pts;
  packet->duration = duration;
  packet->flags |= AV_PKT_FLAG_KEY;
  m_output.Write(*packet, m_pTarget->index, kMilliseconds);
}
