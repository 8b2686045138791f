#pragma once

#include <cstdint>
#include <span>

#include "kernel/kernelparams.h"
#include "kernel/ring.h"

/// Weights of the motion records in a smoothing window, newest record first. Smoothing averages the positions
/// of frames relative to the delayed frame. A record's motion moves every frame beyond it, so its weight is
/// the sum of those frames' weights: positive after the delayed frame, negative before it.
struct PathWeights {
  std::span<const std::int32_t>
      entries;  ///< as many as the window has frames; empty for an unsupported window
  std::int32_t divisor;
};

/// Box or Gaussian weights for a window of 4, 8, 12, 16, 24, 32, 64 or 128 frames.
PathWeights FindPathWeights(std::int32_t windowLength, bool gaussian);

/// The correction that moves the delayed frame from its measured to its smoothed position on the camera path.
/// An axis whose correction is 60 % of the frame's side or more is not corrected. Sums of dx and dy wrap at
/// 32 bits. `ring` holds as many records as there are weights.
MotionRecord ComputeCorrection(const Ring<MotionRecord>& ring, const PathWeights& weights, std::int32_t width,
                               std::int32_t height);
