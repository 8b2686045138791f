#include "precise/sourceline.h"

namespace precise {

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
  return ::ColumnsInside(line.startY, line.stepY, y, ::ColumnsInside(line.startX, line.stepX, x, within));
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
