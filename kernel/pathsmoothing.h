#pragma once

#include <cstdint>
#include <span>

#include "kernel/kernelparams.h"
#include "kernel/ring.h"

/// Cumulative weights of the motion records in a smoothing window, newest record first. A record's weight is
/// the summed weight of all frames that its motion separates from the delayed frame: positive for motion
/// after that frame, negative for motion before it.
struct PathWeights {
  std::span<const std::int32_t>
      entries;  ///< as many as the window has frames; empty for an unsupported window
  std::int32_t divisor;
};

/// Box or Gaussian weights for a window of 4, 8, 12, 16, 24, 32, 64 or 128 frames.
PathWeights FindPathWeights(std::int32_t windowLength, bool gaussian);

/// The correction that moves the delayed frame from its measured to its smoothed place on the camera path.
/// An axis whose correction is 60 % of the frame's side or more is not corrected. Sums of dx and dy wrap at
/// 32 bits. `ring` holds as many records as there are weights.
MotionRecord ComputeCorrection(const Ring<MotionRecord>& ring, const PathWeights& weights, std::int32_t width,
                               std::int32_t height);
