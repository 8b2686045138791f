#pragma once

#include <cstdint>
#include <vector>

#include "base/matrix.h"
#include "precise/loops.h"
#include "precise/picture.h"
#include "precise/rowrunner.h"

namespace precise {

/// One resolution of a frame's brightness, 0 … 1024. Sample (x, y) is at the centre of `scale` × `scale`
/// samples of the frame, the first of which is (x·scale, y·scale).
struct Level {
  Plane samples;
  Plane smooth;  ///< `samples` filtered by the cubic B-spline: weights 1/6, 2/3, 1/6 on each axis
  double scale = 1;
};

/// A frame's brightness at several resolutions, finest level first (after Burt and Adelson, "The Laplacian
/// pyramid as a compact image code", 1983, with a binomial filter of 4 × 4 taps). The shorter side of the
/// finest level has at most 300 samples. Each next level has half the columns and rows, rounded down. The
/// shorter side of the coarsest has less than 32.
struct Pyramid {
  /// Makes levels for frames of this format, without contents. Throws std::bad_alloc.
  explicit Pyramid(const PictureFormat& format);

  std::vector<Level> levels;
  int blockShift;  ///< a sample of the finest level is the mean of 2^blockShift × 2^blockShift samples
};

/// Fills all levels from plane 0 of a frame of the pyramid's format. The reduction to the finest level goes
/// through the runner.
void BuildPyramid(const PlaneOf<const std::uint8_t>& luma, int bitsPerSample, const Loops& loops,
                  const RowRunner& runner, Pyramid& pyramid);

}  // namespace precise
