#pragma once

#include <cstdint>
#include <vector>

#include "precise/motion.h"
#include "precise/similarity.h"

namespace precise {

/// How a frame is tied to the one before.
enum class Tie {
  Cut,       ///< not at all: a shot begins here
  Measured,  ///< the motion between the two was measured
  Assumed,   ///< the shot goes on; the motion was not measured: none, or half of that across a flash
  Open,      ///< the frames differ: the next frame tells a cut from a flash
};

struct Link {
  Tie tie = Tie::Cut;
  Similarity motion;      ///< of the content, from the frame before; the identity at a cut
  std::int64_t shot = 0;  ///< number of the frame's shot
};

/// The links of a stream's newest frames. Frames are numbered from 0. Only the newest frame's link can be
/// open.
class CTrack {
 public:
  /// Keeps the links of `capacity` frames, at least 3. With `findCuts` false the stream is one shot. Throws
  /// std::bad_alloc.
  CTrack(std::int64_t capacity, bool findCuts);

  /// Adds the first frame.
  void Start();

  /// Adds a frame, given its match with the one before. True when `Bridge` must follow.
  bool Append(const Match& match);

  /// Completes the two newest links, given the newest frame's match with the last but one. If these show the
  /// same scene, the frame between them is a flash, and each link gets half of the motion.
  void Bridge(const Match& match);

  /// Ends the stream: settles the newest link if it is open.
  void End();

  std::int64_t Capacity() const { return static_cast<std::int64_t>(m_links.size()); }
  std::int64_t Frames() const { return m_frames; }
  const Link& operator[](std::int64_t frame) const { return m_links[Slot(frame)]; }

 private:
  std::size_t Slot(std::int64_t frame) const { return static_cast<std::size_t>(frame) % m_links.size(); }
  Link& LinkOf(std::int64_t frame) { return m_links[Slot(frame)]; }
  /// Settles the open link of a frame that matches neither neighbour. If the link before it was measured, it
  /// is a cut. Otherwise the frames may all be noise, and the shot goes on.
  void JudgeAlone(std::int64_t frame);
  void CutAt(std::int64_t frame);

  std::vector<Link> m_links;
  bool m_findCuts;
  std::int64_t m_frames = 0;
};

}  // namespace precise
