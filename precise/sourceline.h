#pragma once

#include "precise/loops.h"

namespace precise {

/// The line through these positions, given in samples: of column 0, and from column to column. All are below
/// 2^30 in size.
SourceLine MakeSourceLine(double startX, double startY, double stepX, double stepY);

inline constexpr std::int64_t kOneSample = std::int64_t{1} << kPositionBits;

/// The position of so many samples, which are below 2^30 in size.
std::int64_t FixedPosition(double samples);

/// The columns of `within` whose position lies inside both ranges, which are in the units of the line.
ColumnRun ColumnsInside(const SourceLine& line, const PositionRange& x, const PositionRange& y,
                        ColumnRun within);

/// The columns of `within` for which the plane has so many samples before and after the one that a position,
/// rounded to 1/256 sample, is rounded down to.
ColumnRun ColumnsWithSamples(const SourceLine& line, const SourcePlane& plane, std::int32_t before,
                             std::int32_t after, ColumnRun within);

}  // namespace precise
