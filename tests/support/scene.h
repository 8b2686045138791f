#pragma once

#include <cstdint>
#include <vector>

#include "kernel/frame.h"

/// Where the camera stands: pixels and degrees. Memory rows count upward.
struct CameraPose {
  double x = 0, y = 0, degrees = 0;
};

/// A fixed picture with detail at several scales in all three colours, and the frames that a moving camera
/// takes of it. The same bytes on every machine.
class Scene {
 public:
  /// Large enough for frames of this size at poses up to `margin` pixels away.
  Scene(FrameGeometry frame, std::int32_t margin, std::uint32_t seed = 1);

  /// The frame at a pose; padding bytes are 0.
  std::vector<std::uint8_t> Shoot(const CameraPose& pose) const;

  const FrameGeometry& Frame() const { return m_frame; }

 private:
  FrameGeometry m_frame, m_canvas;
  std::int32_t m_margin;
  std::vector<std::uint8_t> m_pixels;
};

/// Uniformly random bytes.
std::vector<std::uint8_t> RandomBytes(std::size_t count, std::uint32_t seed);

/// A hand-held camera's pose at a frame: a slow pan under an irregular tremble of a few pixels.
CameraPose ShakyPose(int frameNumber);
