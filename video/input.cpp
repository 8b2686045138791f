#include "video/input.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <iterator>

#include "host/options.h"
#include "host/workerror.h"
#include "video/interruption.h"

namespace {

AVFormatContext* Open(const std::string& fileName) {
  const bool isPipe = fileName == kStandardStream;
  std::error_code ignored;
  if (!isPipe && !std::filesystem::exists(fileName, ignored)) throw WorkError("no such file: " + fileName);
  if (std::filesystem::is_directory(fileName, ignored)) throw WorkError("is a folder: " + fileName);
  AVFormatContext* format = Allocated(avformat_alloc_context());
  format->interrupt_callback.callback = [](void*) { return IsInterrupted() ? 1 : 0; };
  Dictionary options;
  options.Set("protocol_whitelist", "file,pipe");
  const std::string url = isPipe ? "pipe:0" : "file:" + fileName;
  const int result = avformat_open_input(&format, url.c_str(), nullptr, options.Entries());
  CheckInterruption();
  Check(result, "not a video that can be read: " + StreamName(fileName, "standard input"));
  return format;
}

}  // namespace

Input::Input(const std::string& fileName)
    : m_fileName(StreamName(fileName, "standard input")), m_pFormat(Open(fileName)) {
  Check(avformat_find_stream_info(m_pFormat.get(), nullptr), "cannot read " + m_fileName);
  for (unsigned i = 0; i < m_pFormat->nb_streams && !m_pPicture; ++i) {
    AVStream* stream = m_pFormat->streams[i];
    const bool isCover = (stream->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
    if (stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO && !isCover) m_pPicture = stream;
  }
  if (!m_pPicture) throw WorkError("no video stream in " + m_fileName);
}

bool Input::Read(AVPacket& packet) {
  CheckInterruption();
  if (!m_ahead.empty()) {
    av_packet_unref(&packet);
    av_packet_move_ref(&packet, m_ahead.front().get());
    m_ahead.pop_front();
    return true;
  }
  const int result = av_read_frame(m_pFormat.get(), &packet);
  CheckInterruption();
  if (result < 0) return false;
  const AVStream& stream = *m_pFormat->streams[packet.stream_index];
  const AVRational base = stream.time_base;
  if (HasBroadcastClock()) FollowClock(packet, stream);
  const std::int64_t origin = OriginIn(base) + av_rescale_q(m_jumped, AV_TIME_BASE_Q, base);
  if (packet.pts != AV_NOPTS_VALUE) packet.pts -= origin;
  if (packet.dts != AV_NOPTS_VALUE) packet.dts -= origin;
  if (packet.pts != AV_NOPTS_VALUE)
    m_end = std::max(m_end, ToSeconds(packet.pts + std::max<std::int64_t>(packet.duration, 0), base));
  return true;
}

void Input::PutBack(std::deque<PacketPtr> packets) {
  m_ahead.insert(m_ahead.begin(), std::make_move_iterator(packets.begin()),
                 std::make_move_iterator(packets.end()));
}

std::int64_t Input::StartIn(AVRational base) const {
  const std::int64_t start = m_pFormat->start_time;
  return start == AV_NOPTS_VALUE ? 0 : av_rescale_q(start, AV_TIME_BASE_Q, base) - OriginIn(base);
}

bool Input::HasBroadcastClock() const { return (m_pFormat->iformat->flags & AVFMT_TS_DISCONT) != 0; }

/// Measures jumps of the clock, as at the joints of recordings. After a jump a stream goes on where it had
/// ended; the other streams are shifted by the same time.
void Input::FollowClock(const AVPacket& packet, const AVStream& stream) {
  constexpr std::int64_t kFurthestBack = AV_TIME_BASE / 10, kLongestGap = 10 * std::int64_t{AV_TIME_BASE};
  const AVMediaType type = stream.codecpar->codec_type;
  const bool isContinuous = type == AVMEDIA_TYPE_VIDEO || type == AVMEDIA_TYPE_AUDIO;
  if (!isContinuous || packet.dts == AV_NOPTS_VALUE) return;
  const std::int64_t time = av_rescale_q(packet.dts, stream.time_base, AV_TIME_BASE_Q);
  const auto [found, isFirst] = m_next.try_emplace(packet.stream_index, time);
  const std::int64_t ahead = time - m_jumped - found->second;
  if (!isFirst && (ahead < -kFurthestBack || ahead > kLongestGap)) m_jumped += ahead;
  found->second = time - m_jumped + av_rescale_q(packet.duration, stream.time_base, AV_TIME_BASE_Q);
}

std::int64_t Input::OriginIn(AVRational base) const {
  if (!HasBroadcastClock() || m_pFormat->start_time == AV_NOPTS_VALUE) return 0;
  return av_rescale_q(m_pFormat->start_time, AV_TIME_BASE_Q, base);
}

AVRational Input::Rate() const {
  const AVRational average = m_pPicture->avg_frame_rate;
  const bool hasAverage = average.num > 0 && average.den > 0;
  const AVRational nominal = NominalRate();
  return hasAverage && (!HasConstantRate() || nominal.num == 0) ? average : nominal;
}

AVRational Input::NominalRate() const {
  // Where the file tells no rate, the library may give the ticks of its clock instead, such as 1000.
  constexpr double kHighest = 300;
  const AVRational nominal = m_pPicture->r_frame_rate;
  if (nominal.num <= 0 || nominal.den <= 0 || av_q2d(nominal) > kHighest) return {0, 1};
  return nominal;
}

bool Input::HasConstantRate() const {
  const double average = av_q2d(m_pPicture->avg_frame_rate), nominal = av_q2d(m_pPicture->r_frame_rate);
  return m_pPicture->avg_frame_rate.den == 0 || !(average > 0) ||
         (nominal > 0 && std::abs(nominal - average) < 0.002 * nominal);
}

std::int64_t Input::ExpectedFrames() const {
  if (m_pPicture->nb_frames > 0) return m_pPicture->nb_frames;
  const double rate = av_q2d(Rate());
  const double seconds = m_pPicture->duration > 0  ? ToSeconds(m_pPicture->duration, m_pPicture->time_base)
                         : m_pFormat->duration > 0 ? ToSeconds(m_pFormat->duration, AV_TIME_BASE_Q)
                                                   : 0;
  return static_cast<std::int64_t>(std::clamp(rate * seconds, 0.0, 1e12));
}

std::optional<double> Input::FractionRead(double pictureEnd) const {
  if (m_pFormat->duration_estimation_method == AVFMT_DURATION_FROM_BITRATE || m_jumped != 0)
    return std::nullopt;
  const AVRational base = m_pPicture->time_base;
  std::int64_t duration = m_pPicture->duration;
  // The demuxer of AVI cuts the duration to what the file still holds, but keeps the header's number of
  // frames.
  if (av_match_name(m_pFormat->iformat->name, "avi") != 0)
    duration = std::max(duration, m_pPicture->nb_frames);
  if (duration > 0 && m_pPicture->start_time != AV_NOPTS_VALUE) {
    const double start = ToSeconds(m_pPicture->start_time - OriginIn(base), base);
    return (pictureEnd - start) / ToSeconds(duration, base);
  }
  if (m_pFormat->duration <= 0) return std::nullopt;
  // The file's length counts from zero, to the end of whichever stream ends last.
  return std::max(m_end, pictureEnd) / ToSeconds(m_pFormat->duration, AV_TIME_BASE_Q);
}
