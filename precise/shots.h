#pragma once

#include <cstdint>
#include <vector>

#include "precise/motion.h"
#include "precise/similarity.h"

namespace precise {

/// What ties a frame to the one before.
enum class Tie {
  Cut,       ///< nothing: a shot begins here
  Measured,  ///< a motion that was measured between the two
  Assumed,   ///< no motion could be measured, but the shot goes on
  Open,      ///< the frames differ: the next frame tells a cut from a flash
};

struct Link {
  Tie tie = Tie::Cut;
  Similarity motion;      ///< of the content, from the frame before; nothing at a cut
  std::int64_t shot = 0;  ///< number of the frame's shot
};

/// The links of the newest frames, numbered from 0. Only the newest frame's link can be open.
class CTrack {
 public:
  /// Keeps the links of `capacity` frames, at least 2. With `findCuts` false the stream is one shot.
  CTrack(std::int64_t capacity, bool findCuts);

  /// Adds the first frame.
  void Start();

  /// Adds a frame, given its match with the one before. True when `Bridge` must follow.
  bool Append(const Match& match);

  /// Completes the newest link, given the newest frame's match with the last but one: when these two are
  /// alike, what stands between them is a flash.
  void Bridge(const Match& match);

  /// No frame follows that could settle an open link.
  void End();

  std::int64_t Capacity() const { return static_cast<std::int64_t>(m_links.size()); }
  std::int64_t Frames() const { return m_frames; }
  const Link& operator[](std::int64_t frame) const { return m_links[Slot(frame)]; }

 private:
  std::size_t Slot(std::int64_t frame) const { return static_cast<std::size_t>(frame) % m_links.size(); }
  Link& LinkOf(std::int64_t frame) { return m_links[Slot(frame)]; }
  /// Settles an open link whose frame resembles no other. It is a cut if the shot before could be followed;
  /// otherwise the frames may all be noise.
  void JudgeAlone(std::int64_t frame);
  void CutAt(std::int64_t frame);

  std::vector<Link> m_links;
  bool m_findCuts;
  std::int64_t m_frames = 0;
};

}  // namespace precise
