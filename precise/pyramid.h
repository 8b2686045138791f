#pragma once

#include <cstdint>
#include <vector>

#include "base/matrix.h"
#include "precise/loops.h"
#include "precise/picture.h"
#include "precise/rowrunner.h"

namespace precise {

/// One resolution of a frame's brightness. Sample i stands in the middle of `scale` columns and rows of the
/// frame, the first of which is i·scale.
struct Level {
  Plane samples;
  Plane smooth;  ///< `samples` as a cubic B-spline shows them where it is taken at a sample
  double scale = 1;
};

/// A frame's brightness, finest level first. The finest has a shorter side of up to 300 samples, each further
/// one half as many columns and rows, and the last a shorter side below 32.
struct Pyramid {
  explicit Pyramid(const PictureFormat& format);

  std::vector<Level> levels;
  int blockShift;  ///< a sample of the finest level is the mean of 2^blockShift columns and rows
};

/// Fills the pyramid from the frame's plane 0, of which the runner may have rows reduced at the same time.
void BuildPyramid(const PlaneOf<const std::uint8_t>& luma, int bitsPerSample, const Loops& loops,
                  const RowRunner& runner, Pyramid& pyramid);

}  // namespace precise
