#pragma once

#include "precise/loops.h"

namespace precise {

/// The line on which column 0 reads at (startX, startY), and each further column (stepX, stepY) beyond the
/// one before. All are in samples, with magnitudes below 2^30.
SourceLine MakeSourceLine(double startX, double startY, double stepX, double stepY);

inline constexpr std::int64_t kOneSample = std::int64_t{1} << kPositionBits;

/// `samples` in the fixed point of a `SourceLine`, rounded to the nearest. The magnitude is below 2^30.
std::int64_t FixedPosition(double samples);

/// The columns of `within` whose position is inside both ranges: one run, as both coordinates advance
/// linearly.
ColumnRun ColumnsInside(const SourceLine& line, const PositionRange& x, const PositionRange& y,
                        ColumnRun within);

/// The columns of `within` whose filter taps all exist in the plane. On each axis these are the samples
/// s - before … s + after, where s is the last sample at or before the position, rounded to 1/256 sample.
ColumnRun ColumnsWithSamples(const SourceLine& line, const SourcePlane& plane, std::int32_t before,
                             std::int32_t after, ColumnRun within);

}  // namespace precise
