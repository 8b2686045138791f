#include "video/range.h"

#include <algorithm>
#include <functional>
#include <vector>

#include "video/input.h"

namespace {

// The most packets that Skip holds. Where key frames are farther apart, it drops fewer.
constexpr std::size_t kMostAhead = 20'000;

}  // namespace

Range::Range(const Options& options, const Input& input)
    : m_input(input), m_start(options.start), m_end(options.end) {
  if (!m_start) m_origin = 0;
}

std::int64_t Range::ToMilliseconds(std::int64_t time, AVRational base) const {
  return av_rescale_q(time - m_input.StartIn(base), base, kMilliseconds);
}

std::int64_t Range::FromMilliseconds(std::int64_t milliseconds, AVRational base) const {
  return av_rescale_q(milliseconds, kMilliseconds, base) + m_input.StartIn(base);
}

bool Range::IsBefore(std::int64_t pts) const {
  return m_start && ToMilliseconds(pts, m_input.Picture().time_base) < *m_start;
}

bool Range::IsBehind(std::int64_t time, std::int64_t milliseconds) const {
  return m_end && ToMilliseconds(time, m_input.Picture().time_base) >= *m_end + milliseconds;
}

void Range::Skip(Input& input, std::size_t leadIn) {
  if (!m_start) return;
  m_leadIn = leadIn;
  const AVStream& picture = input.Picture();
  std::deque<PacketPtr> kept;
  bool isDone = false;
  for (PacketPtr packet = NewPacket(); !isDone && input.Read(*packet); packet = NewPacket()) {
    const bool isPicture = packet->stream_index == picture.index;
    const bool isKey = isPicture && (packet->flags & AV_PKT_FLAG_KEY) != 0;
    if (!isPicture && EndsBefore(*packet, input.Format().streams[packet->stream_index]->time_base)) continue;
    // Packets come in the order of their dts. Those without times cannot be placed, so the search ends there.
    if (isPicture)
      isDone = packet->dts == AV_NOPTS_VALUE || !IsBefore(packet->dts) ||
               (isKey && packet->pts == AV_NOPTS_VALUE) || kept.size() >= kMostAhead;
    kept.push_back(std::move(packet));
    if (isKey && !isDone) DropUnneeded(kept);
  }
  DropUnneeded(kept);
  input.PutBack(std::move(kept));
}

/// Drops the picture's packets before the last key frame that leaves room for the lead-in.
void Range::DropUnneeded(std::deque<PacketPtr>& packets) {
  const auto isPicture = [&](const PacketPtr& packet) {
    return packet->stream_index == m_input.Picture().index;
  };
  std::vector<std::int64_t> times;  // of pictures before the range
  for (auto packet = packets.rbegin(); packet != packets.rend(); ++packet) {
    const std::int64_t pts = (*packet)->pts;
    if (!isPicture(*packet) || pts == AV_NOPTS_VALUE || !IsBefore(pts)) continue;
    times.push_back(pts);
    if (((*packet)->flags & AV_PKT_FLAG_KEY) == 0) continue;
    // Pictures that follow a key frame in the file but are shown before it may need earlier ones (open GOP).
    const auto room = std::ranges::count_if(times, [&](std::int64_t time) { return time >= pts; });
    if (static_cast<std::size_t>(room) < m_leadIn) continue;
    const auto leadInStart = times.begin() + static_cast<std::ptrdiff_t>(m_leadIn) - 1;
    std::ranges::nth_element(times, leadInStart, std::greater());
    m_leadInStart = *leadInStart;
    const auto kept = std::stable_partition(packets.begin(), packet.base() - 1, isPicture);
    m_hasSkipped = m_hasSkipped || kept != packets.begin();
    packets.erase(packets.begin(), kept);
    return;
  }
}

bool Range::Place(AVFrame& picture) {
  const bool isBefore = IsBefore(picture.pts);
  const bool isOutside = isBefore || IsBehind(picture.pts);
  picture.flags = isOutside ? picture.flags | AV_FRAME_FLAG_DISCARD : picture.flags & ~AV_FRAME_FLAG_DISCARD;
  if (isBefore) ++m_leadInSeen;
  if (isBefore || m_origin) return true;
  m_origin = picture.pts;
  return !m_hasSkipped || m_leadInSeen >= m_leadIn;
}

std::int64_t Range::Origin(AVRational base) const {
  return m_origin ? av_rescale_q(*m_origin, m_input.Picture().time_base, base) : 0;
}

bool Range::EndsBefore(const AVPacket& packet, AVRational base) const {
  const std::int64_t pts = packet.pts == AV_NOPTS_VALUE ? packet.dts : packet.pts;
  return m_start && pts != AV_NOPTS_VALUE &&
         ToMilliseconds(pts + std::max<std::int64_t>(packet.duration, 0), base) < *m_start;
}

bool Range::Cut(AVPacket& packet, const AVStream& stream) const {
  if (!m_start && !m_end) return true;
  const AVRational base = stream.time_base;
  const std::int64_t origin = Origin(base);
  if (packet.pts == AV_NOPTS_VALUE) packet.pts = packet.dts;
  if (packet.pts == AV_NOPTS_VALUE) return false;
  packet.pts -= origin;
  if (packet.dts != AV_NOPTS_VALUE) packet.dts -= origin;
  // Sound must not outlast the pictures: when ranges are joined, each begins where the one before ends.
  const std::int64_t end = m_end ? FromMilliseconds(*m_end - 1, base) - origin : INT64_MAX;
  const std::int64_t packetEnd = packet.pts + std::max<std::int64_t>(packet.duration, 0);
  if (stream.codecpar->codec_type != AVMEDIA_TYPE_SUBTITLE)
    return (!m_start || packet.pts >= 0) && packetEnd <= end;
  if (m_start && packet.pts < 0) packet.pts = packet.dts = 0;
  if (packet.duration > 0) packet.duration = std::min(packetEnd, end) - packet.pts;
  return (packet.duration > 0 || packetEnd == packet.pts) && packet.pts < end;
}

bool Range::Cut(std::int64_t& start, std::int64_t& end, AVRational base) const {
  if (!m_start && !m_end) return true;
  const std::int64_t origin = m_start ? FromMilliseconds(*m_start, base) : 0;
  start -= origin;
  end = (m_end ? std::min(end, FromMilliseconds(*m_end, base)) : end) - origin;
  if (m_start) start = std::max<std::int64_t>(start, 0);
  return start < end;
}

std::int64_t Range::ExpectedPictures() const {
  const std::int64_t all = m_input.ExpectedFrames();
  const double rate = av_q2d(m_input.Rate());
  const auto pictures = [&](std::int64_t milliseconds) {
    return std::min(all, static_cast<std::int64_t>(rate * static_cast<double>(milliseconds) / 1000));
  };
  return (m_end ? pictures(*m_end) : all) - (m_start ? pictures(*m_start) : 0);
}
