#pragma once

#include "kernel/loops.h"

/// The columns of `within` whose source sample of a `width` × `height` picture, its right and its upper
/// neighbour all exist. They always form one run, since both coordinates advance linearly. `end` is never
/// below `begin`.
ColumnRun UsableColumns(const SourceLine& line, std::int32_t width, std::int32_t height, ColumnRun within);

/// Radians of an angle in degrees. The divisor has ten digits: more would change results.
constexpr double RadiansFromDegrees(double degrees) { return degrees / 57.29577951; }

/// Fraction bits of sine and cosine for a picture of this size: 31, and fewer if both sides are below 400.
constexpr int RotationBits(std::int32_t width, std::int32_t height, int bitsOfSmallPictures) {
  constexpr std::int32_t kLargeSide = 400;
  return width < kLargeSide && height < kLargeSide ? bitsOfSmallPictures : 31;
}

/// cos × 2^bits and sin × 2^bits, truncated toward zero. `bits` is at most 31.
struct FixedRotation {
  FixedRotation(double radians, int bits);
  std::int64_t cosine, sine;
};
