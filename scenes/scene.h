#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "kernel/frame.h"

/// Position and roll of the camera, in pixels and degrees. y counts memory rows, that is upward.
struct CameraPose {
  double x = 0, y = 0, degrees = 0;
};

/// A fixed BGR picture with detail at several scales in each colour, and the frames that a moving camera
/// takes of it. The bytes are the same on every machine.
class Scene {
 public:
  /// The picture is large enough for frames of this size at poses up to `margin` pixels off the middle.
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

/// A hand-held camera's pose at a frame: a slow pan with an irregular tremble of a few pixels.
CameraPose ShakyPose(int frameNumber);

/// The first frames of a clip of that camera.
std::vector<std::vector<std::uint8_t>> ShakyFrames(FrameGeometry frame, int count);

/// A clip without end made of a few frames: it runs forward and backward in turn, so the camera never jumps.
template <class Frame>
class EndlessClip {
 public:
  explicit EndlessClip(std::vector<Frame> frames) : m_frames(std::move(frames)) {}

  const Frame& operator[](std::size_t number) const {
    const std::size_t period = 2 * (m_frames.size() - 1), phase = number % period;
    return m_frames[phase < m_frames.size() ? phase : period - phase];
  }

 private:
  std::vector<Frame> m_frames;  ///< two at least
};
