#include "precise/shots.h"

namespace precise {

CTrack::CTrack(std::int64_t capacity, bool findCuts)
    : m_links(static_cast<std::size_t>(capacity)), m_findCuts(findCuts) {}

void CTrack::Start() {
  LinkOf(0) = {};
  m_frames = 1;
}

bool CTrack::Append(const Match& match) {
  const std::int64_t frame = m_frames++;
  const Link before = LinkOf(frame - 1);
  Link& link = LinkOf(frame);
  link = {.tie = Tie::Assumed, .motion = {}, .shot = before.shot};
  if (match.IsSameScene()) {
    link.tie = Tie::Measured;
    link.motion = match.map;
    // A frame that differs from the one before it but not from the one after it begins a shot.
    if (before.tie == Tie::Open) CutAt(frame - 1);
    return false;
  }
  if (m_findCuts && match.IsOtherScene()) link.tie = Tie::Open;
  return before.tie == Tie::Open || before.tie == Tie::Assumed;
}

void CTrack::Bridge(const Match& match) {
  const std::int64_t frame = m_frames - 1;
  if (match.IsSameScene()) {
    const Similarity half = Half(match.map);
    for (const std::int64_t bridged : {frame - 1, frame}) {
      LinkOf(bridged).tie = Tie::Assumed;
      LinkOf(bridged).motion = half;
    }
  } else if (LinkOf(frame - 1).tie == Tie::Open) {
    JudgeAlone(frame - 1);
  }
}

void CTrack::End() {
  if (m_frames > 0 && LinkOf(m_frames - 1).tie == Tie::Open) JudgeAlone(m_frames - 1);
}

void CTrack::JudgeAlone(std::int64_t frame) {
  if (LinkOf(frame - 1).tie == Tie::Measured)
    CutAt(frame);
  else
    LinkOf(frame).tie = Tie::Assumed;
}

void CTrack::CutAt(std::int64_t frame) {
  LinkOf(frame).tie = Tie::Cut;
  for (std::int64_t later = frame; later < m_frames; ++later) ++LinkOf(later).shot;
}

}  // namespace precise
