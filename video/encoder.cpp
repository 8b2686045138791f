#include "video/encoder.h"

#include <algorithm>
#include <cmath>
#include <string_view>
#include <vector>

#include "host/workerror.h"
#include "video/output.h"
#include "video/pixelformats.h"

namespace {

struct EncoderDefault {
  std::string_view encoder, option, value;
};

constexpr EncoderDefault kDefaults[] = {
    {"libx264", "preset", "medium"}, {"libx264", "crf", "18"},        {"libx264rgb", "preset", "medium"},
    {"libx264rgb", "crf", "18"},     {"libx265", "preset", "medium"}, {"libx265", "crf", "18"},
    {"libvpx-vp9", "crf", "24"},     {"libvpx-vp9", "b", "0"},        {"libvpx-vp9", "cpu-used", "3"},
    {"libvpx-vp9", "row-mt", "1"},   {"libvpx", "crf", "10"},         {"libvpx", "b", "8000000"},
    {"libaom-av1", "crf", "24"},     {"libaom-av1", "b", "0"},        {"libaom-av1", "cpu-used", "6"},
    {"libaom-av1", "row-mt", "1"},   {"libsvtav1", "crf", "24"},      {"libsvtav1", "preset", "8"},
};

bool HasDefaults(std::string_view encoder) {
  return std::ranges::any_of(kDefaults, [=](const EncoderDefault& row) { return row.encoder == encoder; });
}

const AVCodec* FindEncoder(const std::string& name) {
  if (const AVCodec* const encoder = avcodec_find_encoder_by_name(name.c_str())) return encoder;
  const AVCodecDescriptor* const codec = avcodec_descriptor_get_by_name(name.c_str());
  return codec ? FindEncoder(codec->id) : nullptr;
}

/// True when the encoder would cut off a column or row, as it takes whole chroma samples only.
bool CutsSize(const AVCodec& encoder, AVPixelFormat format, const PictureFacts& facts) {
  const bool needsWholeChroma = encoder.id == AV_CODEC_ID_H264 || encoder.id == AV_CODEC_ID_HEVC;
  return needsWholeChroma && CutsChroma(format, facts.width, facts.height);
}

/// The frame rate that the encoder is told. With fixed ticks it is also the rate of these.
AVRational EncoderRate(const AVCodec& encoder, const PictureFacts& facts, bool hasFixedTicks) {
  constexpr AVRational kUsual = {30, 1};
  AVRational rate = facts.rate.num > 0 ? facts.rate : kUsual;
  // Pictures of a variable rate mostly lie on the ticks of the nominal one.
  if (hasFixedTicks && facts.nominalRate.num > 0) rate = facts.nominalRate;
  const AVRational* const supported = encoder.supported_framerates;
  return supported ? supported[av_find_nearest_q_idx(rate, supported)] : rate;
}

/// The source's time base. MPEG-4 has 16 bits for it; a finer one becomes 1/60000 s.
AVRational TimeBase(AVCodecID codec, AVRational wanted) {
  if (codec == AV_CODEC_ID_MPEG4 && wanted.den > 65535) return {1, 60000};
  return wanted;
}

std::string Scaled(AVRational value, int unit) { return std::to_string(std::llround(av_q2d(value) * unit)); }

/// The source's HDR10 metadata (mastering display, light level) as parameters of libx265, in H.265's units.
std::string HighDynamicText(const PictureFacts& facts) {
  std::string text;
  if (const AVMasteringDisplayMetadata* const screen = facts.mastering;
      screen && screen->has_primaries && screen->has_luminance) {
    constexpr int kChroma = 50000, kLuminance = 10000;
    const auto point = [](const AVRational(&at)[2]) {
      return '(' + Scaled(at[0], kChroma) + ',' + Scaled(at[1], kChroma) + ')';
    };
    text += ":master-display=G" + point(screen->display_primaries[1]) + 'B' +
            point(screen->display_primaries[2]) + 'R' + point(screen->display_primaries[0]) + "WP" +
            point(screen->white_point) + "L(" + Scaled(screen->max_luminance, kLuminance) + ',' +
            Scaled(screen->min_luminance, kLuminance) + ')';
  }
  if (facts.light)
    text += ":max-cll=" + std::to_string(facts.light->MaxCLL) + ',' + std::to_string(facts.light->MaxFALL);
  return facts.IsHighDynamic() ? text + ":hdr10-opt=1" : text;
}

void AddOwnParameters(const AVCodec& encoder, const PictureFacts& facts, Dictionary& options) {
  if (std::string_view(encoder.name) != "libx265") return;
  const AVDictionaryEntry* const given = av_dict_get(*options.Entries(), "x265-params", nullptr, 0);
  const std::string more = given ? std::string(":") + given->value : "";
  options.Set("x265-params", "log-level=error" + HighDynamicText(facts) + more);
}

/// Sets the options that were asked for, and our defaults for the others. Throws UsageError.
void SetOptions(const AVCodec& encoder, const Encoding& wanted, const PictureFacts& facts,
                AVCodecContext& context, Dictionary& options) {
  const auto require = [&](const char* option, const std::string& value) {
    if (value.empty()) return;
    const AVClass* own = encoder.priv_class;
    if (!own || !av_opt_find(&own, option, nullptr, 0, AV_OPT_SEARCH_FAKE_OBJ))
      throw UsageError(std::string("the encoder ") + encoder.name + " has no " + option +
                       "; give its own options by --encoder-options");
    options.Set(option, value);
  };
  if (av_dict_parse_string(options.Entries(), wanted.options.c_str(), "=", ":", 0) < 0)
    Refuse("--encoder-options", wanted.options, "give names and values, such as tune=film:g=50");
  std::string crf;
  if (wanted.crf) crf = std::to_string(*wanted.crf);
  require("crf", crf);
  require("preset", wanted.preset);
  AddOwnParameters(encoder, facts, options);
  for (const EncoderDefault& row : kDefaults)
    if (row.encoder == encoder.name) options.SetDefault(std::string(row.option), std::string(row.value));
  if (HasDefaults(encoder.name)) return;
  // All other encoders get a fixed quantizer: 2 of 31, lower is better. Theora's is 8 of 10, higher is
  // better.
  context.flags |= AV_CODEC_FLAG_QSCALE;
  context.global_quality = (encoder.id == AV_CODEC_ID_THEORA ? 8 : 2) * FF_QP2LAMBDA;
}

void SetPicture(const PictureFacts& facts, AVPixelFormat format, AVCodecContext& context) {
  context.width = facts.width;
  context.height = facts.height;
  context.pix_fmt = format;
  context.sample_aspect_ratio = facts.pixelAspect;
  context.color_primaries = facts.primaries;
  context.color_trc = facts.transfer;
  context.colorspace = facts.matrix;
  context.color_range = facts.range;
  context.chroma_sample_location = facts.chromaSite;
}

}  // namespace

const AVCodec& ChooseEncoder(const Encoding& wanted, const AVOutputFormat& format,
                             const std::string& fileName, const PictureFacts& facts) {
  if (!wanted.codec.empty()) {
    const AVCodec* const encoder = FindEncoder(wanted.codec);
    if (!encoder || encoder->type != AVMEDIA_TYPE_VIDEO)
      Refuse("--codec", wanted.codec, "no encoder of that name; `ffmpeg -encoders` lists them");
    if (avformat_query_codec(&format, encoder->id, FF_COMPLIANCE_NORMAL) == 0)
      Refuse("--codec", wanted.codec, std::string(format.name) + " files cannot hold it");
    return *encoder;
  }
  AVCodecID codec = av_guess_codec(&format, nullptr, fileName.c_str(), nullptr, AVMEDIA_TYPE_VIDEO);
  // By default the library writes MPEG-2 and Sorenson's H.263 here; H.264 is what players expect today.
  if (av_match_name(format.name, "mpegts,flv") != 0) codec = AV_CODEC_ID_H264;
  const bool isDeep = BitsOf(facts.source) > 8 || facts.IsHighDynamic();
  // The muxer of MPEG-TS takes H.265 but does not say so.
  const bool takesHevc = avformat_query_codec(&format, AV_CODEC_ID_HEVC, FF_COMPLIANCE_NORMAL) == 1 ||
                         av_match_name(format.name, "mpegts") != 0;
  if (codec == AV_CODEC_ID_H264 && isDeep && takesHevc) codec = AV_CODEC_ID_HEVC;
  const char* const name = codec == AV_CODEC_ID_HEVC ? "libx265" : codec == AV_CODEC_ID_H264 ? "libx264" : "";
  const AVCodec* encoder = avcodec_find_encoder_by_name(name);
  if (!encoder) encoder = FindEncoder(codec);
  if (!encoder)
    throw UsageError(std::string("no encoder for ") + avcodec_get_name(codec) +
                     "; choose another by --codec: " + fileName);
  return *encoder;
}

AVPixelFormat ChoosePixelFormat(const AVCodec& encoder, const PictureFacts& facts) {
  const AVPixelFormat source = WithoutRange(facts.source);
  if (!encoder.pix_fmts) return Nearest(source, EngineFormats());
  std::vector<AVPixelFormat> planar, all;
  for (const AVPixelFormat* format = encoder.pix_fmts; *format != AV_PIX_FMT_NONE; ++format) {
    if ((av_pix_fmt_desc_get(*format)->flags & AV_PIX_FMT_FLAG_HWACCEL) != 0 ||
        CutsSize(encoder, *format, facts))
      continue;
    all.push_back(*format);
    const bool keepsColour = !IsGrey(*format) || IsGrey(source);
    if (keepsColour && EngineFormat(*format, facts.width, facts.height)) planar.push_back(*format);
  }
  if (all.empty())
    throw UsageError(std::string("the encoder ") + encoder.name + " takes no pictures of " +
                     std::to_string(facts.width) + "x" + std::to_string(facts.height) +
                     "; choose another --codec");
  return Nearest(source, planar.empty() ? all : planar);
}

PictureEncoder::PictureEncoder(const AVCodec& encoder, AVPixelFormat format, const Encoding& wanted,
                               const PictureFacts& facts, const AVOutputFormat& container)
    : m_pContext(Allocated(avcodec_alloc_context3(&encoder))),
      m_sourceBase(facts.timeBase),
      m_hasFixedTicks(HasFixedRate(container) || encoder.supported_framerates) {
  AVCodecContext& context = *m_pContext;
  SetPicture(facts, format, context);
  context.framerate = EncoderRate(encoder, facts, m_hasFixedTicks);
  context.time_base = m_hasFixedTicks ? av_inv_q(context.framerate) : TimeBase(encoder.id, facts.timeBase);
  context.thread_count = 0;
  if ((container.flags & AVFMT_GLOBALHEADER) != 0) context.flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  if (encoder.id == AV_CODEC_ID_HEVC && IsMovFamily(container)) context.codec_tag = MKTAG('h', 'v', 'c', '1');
  Dictionary options;
  SetOptions(encoder, wanted, facts, context, options);
  const std::string what = std::string("cannot start the encoder ") + encoder.name;
  Check(avcodec_open2(&context, &encoder, options.Entries()), what);
  if (const std::string left = options.First(); !left.empty())
    throw UsageError(std::string("the encoder ") + encoder.name + " has no option " + left);
  if (context.width != facts.width || context.height != facts.height)
    throw WorkError(what + ": it would cut the picture's edge off");
}

/// Gives the frame a unique time in the encoder's time base, and remembers its duration.
void PictureEncoder::Stamp(AVFrame& frame) {
  const AVRational base = m_pContext->time_base;
  std::int64_t pts = av_rescale_q(frame.pts, m_sourceBase, base);
  if (m_lastPts != AV_NOPTS_VALUE) pts = std::max(pts, m_lastPts + 1);
  std::int64_t duration = av_rescale_q(std::max<std::int64_t>(frame.pkt_duration, 0), m_sourceBase, base);
  if (m_hasFixedTicks) duration = 1;
  if (duration == 0) duration = m_lastDuration;
  if (duration == 0)
    duration = std::max<std::int64_t>(1, av_rescale_q(1, av_inv_q(m_pContext->framerate), base));
  frame.pts = m_lastPts = pts;
  m_durations[pts] = m_lastDuration = duration;
}

void PictureEncoder::Send(AVFrame* frame) {
  if (frame) {
    Stamp(*frame);
    frame->pict_type = AV_PICTURE_TYPE_NONE;
    frame->key_frame = frame->interlaced_frame = frame->top_field_first = frame->repeat_pict = 0;
    frame->quality = m_pContext->global_quality;
    frame->color_range = m_pContext->color_range;
    frame->colorspace = m_pContext->colorspace;
  }
  const int result = avcodec_send_frame(m_pContext.get(), frame);
  if (frame || result != AVERROR_EOF)
    Check(result, std::string("encoding by ") + m_pContext->codec->name + " failed");
}

bool PictureEncoder::Receive(AVPacket& packet) {
  const int result = avcodec_receive_packet(m_pContext.get(), &packet);
  if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return false;
  Check(result, std::string("encoding by ") + m_pContext->codec->name + " failed");
  if (const auto found = m_durations.find(packet.pts); found != m_durations.end()) {
    packet.duration = found->second;
    m_durations.erase(found);
  }
  return true;
}
