#include "video/sidestreams.h"

#include <algorithm>
#include <cmath>
#include <deque>
#include <filesystem>
#include <map>
#include <string_view>

#include "video/input.h"
#include "video/output.h"
#include "video/soundencoder.h"
#include "video/streamcopy.h"
#include "video/subtitleconverter.h"
#include "video/trial.h"

namespace {

constexpr std::size_t kTrialPackets = 32;

class CopiedStream final : public SideStream {
 public:
  CopiedStream(const AVStream& stream, Output& output) : m_base(stream.time_base), m_output(output) {
    AVStream& target = output.AddStream();
    Check(CopyParameters(stream, target, output.Format().oformat), "cannot copy a stream");
    CopyTags(stream, target, false);
    m_index = target.index;
  }

  void Take(AVPacket& packet) override {
    // Of the packets that an edit list hides, only the last is copied: it primes the decoder.
    if ((packet.flags & AV_PKT_FLAG_DISCARD) != 0) {
      m_pPrimer.reset(Allocated(av_packet_clone(&packet)));
      return;
    }
    if (const PacketPtr primer = std::move(m_pPrimer)) Write(*primer);
    Write(packet);
  }

 private:
  void Write(AVPacket& packet) {
    // A packet without a time, such as the second of a pair of fields, follows the one before.
    if (packet.dts == AV_NOPTS_VALUE && packet.pts == AV_NOPTS_VALUE && m_next != AV_NOPTS_VALUE)
      packet.pts = packet.dts = m_next;
    if (packet.dts != AV_NOPTS_VALUE) m_next = packet.dts + packet.duration;
    m_output.Write(packet, m_index, m_base);
  }

  AVRational m_base;
  Output& m_output;
  int m_index = 0;
  PacketPtr m_pPrimer;
  std::int64_t m_next = AV_NOPTS_VALUE;
};

/// Adds a file within the file. Matroska's covers are such files, too.
void AddAttachment(const AVStream& stream, Output& output) {
  AVStream& target = output.AddStream();
  Check(CopyParameters(stream, target), "cannot copy an attachment");
  CopyTags(stream, target, false);
  if (stream.codecpar->codec_type == AVMEDIA_TYPE_ATTACHMENT) return;
  const bool isPng = stream.codecpar->codec_id == AV_CODEC_ID_PNG;
  const auto size = static_cast<std::size_t>(stream.attached_pic.size);
  target.codecpar->codec_type = AVMEDIA_TYPE_ATTACHMENT;
  target.disposition = 0;
  av_freep(&target.codecpar->extradata);
  target.codecpar->extradata =
      static_cast<std::uint8_t*>(Allocated(av_mallocz(size + AV_INPUT_BUFFER_PADDING_SIZE)));
  target.codecpar->extradata_size = stream.attached_pic.size;
  std::copy_n(stream.attached_pic.data, size, target.codecpar->extradata);
  av_dict_set(&target.metadata, "filename", isPng ? "cover.png" : "cover.jpg", AV_DICT_DONT_OVERWRITE);
  av_dict_set(&target.metadata, "mimetype", isPng ? "image/png" : "image/jpeg", AV_DICT_DONT_OVERWRITE);
}

/// Reads the first packets of each stream of sound, and puts all packets back.
std::map<int, std::vector<PacketPtr>> ReadSound(Input& input) {
  constexpr std::int64_t kMostPackets = 2000, kMostBytes = 1 << 26;
  std::map<int, std::vector<PacketPtr>> sound;
  std::deque<PacketPtr> ahead;
  AVFormatContext& format = input.Format();
  for (unsigned i = 0; i < format.nb_streams; ++i)
    if (format.streams[i]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO) sound[static_cast<int>(i)];
  std::size_t missing = sound.size();
  std::int64_t bytes = 0;
  for (std::int64_t count = 0; missing > 0 && count < kMostPackets && bytes < kMostBytes; ++count) {
    const PacketPtr& packet = ahead.emplace_back(NewPacket());
    if (!input.Read(*packet)) {
      ahead.pop_back();
      break;
    }
    bytes += packet->size;
    const auto found = sound.find(packet->stream_index);
    if (found == sound.end() || found->second.size() >= kTrialPackets) continue;
    found->second.emplace_back(Allocated(av_packet_clone(packet.get())));
    if (found->second.size() == kTrialPackets) --missing;
  }
  input.PutBack(std::move(ahead));
  return sound;
}

/// True when the sound begins with the clip and has no gap, as formats need that store no times of sound.
/// Reads the whole file; false for a pipe, which cannot be read twice.
bool IsGapless(const std::string& fileName, const AVStream& stream) {
  constexpr double kToleranceSeconds = 0.03;
  std::error_code ignored;
  if (!std::filesystem::is_regular_file(fileName, ignored)) return false;
  Input input(fileName);
  const int index = stream.index;
  for (unsigned i = 0; i < input.Format().nb_streams; ++i)
    if (static_cast<int>(i) != index) input.Format().streams[i]->discard = AVDISCARD_ALL;
  const PacketPtr packet = NewPacket();
  for (double end = 0; input.Read(*packet); av_packet_unref(packet.get())) {
    if (packet->stream_index != index) continue;
    if (packet->pts != AV_NOPTS_VALUE &&
        std::abs(ToSeconds(packet->pts, stream.time_base) - end) > kToleranceSeconds)
      return false;
    const int samples = av_get_audio_frame_duration2(stream.codecpar, packet->size);
    end += samples > 0 ? static_cast<double>(samples) / std::max(1, stream.codecpar->sample_rate)
                       : ToSeconds(packet->duration, stream.time_base);
  }
  return true;
}

/// Decides for each stream whether it is copied, converted or left out.
class Planner {
 public:
  Planner(Input& input, Output& output)
      : m_input(input), m_output(output), m_format(*output.Format().oformat) {}

  /// Null when no packets of the stream are written: it is left out (`isLeftOut`), or the header holds all of
  /// it.
  std::unique_ptr<SideStream> Plan(const AVStream& stream, bool& isLeftOut) {
    if ((stream.disposition & AV_DISPOSITION_ATTACHED_PIC) != 0) return PlanCover(stream, isLeftOut);
    switch (stream.codecpar->codec_type) {
      case AVMEDIA_TYPE_AUDIO:
        return PlanSound(stream, isLeftOut);
      case AVMEDIA_TYPE_SUBTITLE:
        return PlanSubtitles(stream, isLeftOut);
      case AVMEDIA_TYPE_ATTACHMENT:
        isLeftOut = m_format.name != std::string_view("matroska");
        if (!isLeftOut) AddAttachment(stream, m_output);
        return nullptr;
      default:
        return PlanOther(stream, isLeftOut);
    }
  }

 private:
  std::unique_ptr<SideStream> Copy(const AVStream& stream) {
    return std::make_unique<CopiedStream>(stream, m_output);
  }

  bool IsSameFormat() const { return av_match_name(m_format.name, m_input.Format().iformat->name) != 0; }

  /// Formats that do not tell what they take are expected to take what their own files hold.
  bool Takes(AVCodecID codec) const {
    const int answer = avformat_query_codec(&m_format, codec, FF_COMPLIANCE_NORMAL);
    return answer == 1 || (answer < 0 && IsSameFormat());
  }

  std::unique_ptr<SideStream> PlanCover(const AVStream& stream, bool& isLeftOut) {
    if (m_format.name == std::string_view("matroska")) {
      AddAttachment(stream, m_output);
      return nullptr;
    }
    const AVCodecID codec = stream.codecpar->codec_id;
    const bool isUsual = codec == AV_CODEC_ID_MJPEG || codec == AV_CODEC_ID_PNG || codec == AV_CODEC_ID_BMP;
    if (av_match_name(m_format.name, "mp4,ipod") != 0 && isUsual) return Copy(stream);
    isLeftOut = true;
    return nullptr;
  }

  bool HoldsFurtherSound() const {
    const AVFormatContext& output = m_output.Format();
    bool hasSound = false;
    for (unsigned i = 0; i < output.nb_streams; ++i)
      hasSound = hasSound || output.streams[i]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO;
    return !hasSound || m_format.name != std::string_view("flv");
  }

  std::unique_ptr<SideStream> PlanSound(const AVStream& stream, bool& isLeftOut) {
    if (!HoldsFurtherSound()) {
      isLeftOut = true;
      return nullptr;
    }
    const bool fillsStart = m_format.name == std::string_view("avi");
    const bool canCopy =
        avformat_query_codec(&m_format, stream.codecpar->codec_id, FF_COMPLIANCE_NORMAL) != 0 &&
        (!fillsStart || IsGapless(m_input.FileName(), stream));
    if (canCopy && m_sound.empty()) m_sound = ReadSound(m_input);
    if (canCopy && DecodesFrom(m_output.Format(), stream, m_sound[stream.index])) return Copy(stream);
    const AVCodecID codec =
        av_guess_codec(&m_format, nullptr, m_output.FileName().c_str(), nullptr, AVMEDIA_TYPE_AUDIO);
    const AVCodec* const encoder = FindEncoder(codec);
    isLeftOut =
        !encoder || !avcodec_find_decoder(stream.codecpar->codec_id) || stream.codecpar->sample_rate <= 0;
    if (isLeftOut) return nullptr;
    return std::make_unique<SoundEncoder>(m_input, stream, m_output, *encoder, fillsStart);
  }

  std::unique_ptr<SideStream> PlanSubtitles(const AVStream& stream, bool& isLeftOut) {
    if (Takes(stream.codecpar->codec_id)) return Copy(stream);
    const AVCodecDescriptor* const from = avcodec_descriptor_get(stream.codecpar->codec_id);
    if (from && (from->props & AV_CODEC_PROP_TEXT_SUB) != 0 && avcodec_find_decoder(from->id)) {
      for (const AVCodecID codec : {m_format.subtitle_codec, AV_CODEC_ID_SUBRIP, AV_CODEC_ID_MOV_TEXT,
                                    AV_CODEC_ID_WEBVTT, AV_CODEC_ID_ASS}) {
        const AVCodecDescriptor* const to = avcodec_descriptor_get(codec);
        const AVCodec* const encoder = FindEncoder(codec);
        if (to && encoder && (to->props & AV_CODEC_PROP_TEXT_SUB) != 0 &&
            avformat_query_codec(&m_format, codec, FF_COMPLIANCE_NORMAL) == 1)
          return std::make_unique<SubtitleConverter>(m_input, stream, m_output, *encoder);
      }
    }
    isLeftOut = true;
    return nullptr;
  }

  std::unique_ptr<SideStream> PlanOther(const AVStream& stream, bool& isLeftOut) {
    // The muxer itself writes the streams of chapter titles and time codes, from chapters and tags.
    if (stream.discard == AVDISCARD_ALL || stream.codecpar->codec_tag == MKTAG('t', 'm', 'c', 'd'))
      return nullptr;
    if (stream.codecpar->codec_id != AV_CODEC_ID_NONE && Takes(stream.codecpar->codec_id))
      return Copy(stream);
    isLeftOut = true;
    return nullptr;
  }

  Input& m_input;
  Output& m_output;
  const AVOutputFormat& m_format;
  std::map<int, std::vector<PacketPtr>> m_sound;
};

std::string Describe(const AVStream& stream) {
  const char* const kind = av_get_media_type_string(stream.codecpar->codec_type);
  const bool isCover = (stream.disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
  return "stream " + std::to_string(stream.index) + " (" +
         (isCover ? "cover"
          : kind  ? kind
                  : "unknown") +
         ' ' + avcodec_get_name(stream.codecpar->codec_id) + ')';
}

}  // namespace

SideStreams::SideStreams(Input& input, Output& output) {
  Planner planner(input, output);
  const AVFormatContext& format = input.Format();
  for (unsigned i = 0; i < format.nb_streams; ++i) {
    const AVStream& stream = *format.streams[i];
    bool isLeftOut = false;
    m_streams.push_back(&stream == &input.Picture() ? nullptr : planner.Plan(stream, isLeftOut));
    if (isLeftOut) m_leftOut.push_back(Describe(stream));
  }
  if (format.nb_chapters > 0 && !HoldsChapters(*output.Format().oformat)) m_leftOut.emplace_back("chapters");
}

void SideStreams::Take(AVPacket& packet) {
  // Some demuxers find a stream only when its first packet comes. The header is written by then.
  const auto index = static_cast<std::size_t>(packet.stream_index);
  if (index < m_streams.size() && m_streams[index]) m_streams[index]->Take(packet);
}

void SideStreams::End() {
  for (const auto& stream : m_streams)
    if (stream) stream->End();
}
