#include "precise/sourceline.h"

#include <algorithm>

namespace precise {
namespace {

/// The first column of `within` whose position on a rising line is at least `value`; the end of `within`
/// where there is none.
std::int32_t FirstColumnFrom(std::int64_t start, std::int64_t step, std::int64_t value, ColumnRun within) {
  if (start + within.begin * step >= value || within.begin >= within.end) return within.begin;
  if (start + within.end * step < value) return within.end;
  return static_cast<std::int32_t>((value - start + step - 1) / step);
}

ColumnRun ColumnsBetween(std::int64_t start, std::int64_t step, PositionRange range, ColumnRun within) {
  // Negation makes a falling line rise: low <= x < high becomes 1 - high <= -x < 1 - low.
  if (step < 0) {
    start = -start;
    step = -step;
    range = {1 - range.high, 1 - range.low};
  }
  const std::int32_t begin = FirstColumnFrom(start, step, range.low, within);
  return {begin, std::max(begin, FirstColumnFrom(start, step, range.high, within))};
}

}  // namespace

// Rounds as std::llround does, which compilers do not inline.
std::int64_t FixedPosition(double samples) {
  const double scaled = samples * static_cast<double>(kOneSample);
  const auto whole = static_cast<std::int64_t>(scaled);
  const double rest = scaled - static_cast<double>(whole);
  return whole + (rest >= 0.5 ? 1 : 0) - (rest <= -0.5 ? 1 : 0);
}

SourceLine MakeSourceLine(double startX, double startY, double stepX, double stepY) {
  return {FixedPosition(startX), FixedPosition(startY), FixedPosition(stepX), FixedPosition(stepY)};
}

ColumnRun ColumnsInside(const SourceLine& line, const PositionRange& x, const PositionRange& y,
                        ColumnRun within) {
  return ColumnsBetween(line.startY, line.stepY, y, ColumnsBetween(line.startX, line.stepX, x, within));
}

ColumnRun ColumnsWithSamples(const SourceLine& line, const SourcePlane& plane, std::int32_t before,
                             std::int32_t after, ColumnRun within) {
  // Rounding moves a position up by at most 1/512 sample. The lower limit leaves that out, as it would gain a
  // column at most.
  const auto interior = [&](std::int32_t samples) {
    return PositionRange{before * kOneSample, (samples - after) * kOneSample - (kOneSample >> 9)};
  };
  return ColumnsInside(line, interior(plane.width), interior(plane.height), within);
}

}  // namespace precise
