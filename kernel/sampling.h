#pragma once

#include "kernel/loops.h"

/// The columns of `within` whose source sample, its right neighbour and its upper neighbour lie inside a
/// `width` × `height` picture. They form one run, because both coordinates advance linearly. `end` is never
/// below `begin`.
ColumnRun UsableColumns(const SourceLine& line, std::int32_t width, std::int32_t height, ColumnRun within);

/// The divisor has only ten digits; more would change results.
constexpr double RadiansFromDegrees(double degrees) { return degrees / 57.29577951; }

/// Fraction bits of sine and cosine: `bitsOfSmallPictures` if both sides are below 400, otherwise 31.
constexpr int RotationBits(std::int32_t width, std::int32_t height, int bitsOfSmallPictures) {
  constexpr std::int32_t kLargeSide = 400;
  return width < kLargeSide && height < kLargeSide ? bitsOfSmallPictures : 31;
}

/// cos × 2^bits and sin × 2^bits, truncated toward zero. `bits` is at most 31.
struct FixedRotation {
  FixedRotation(double radians, int bits);
  std::int64_t cosine, sine;
};
