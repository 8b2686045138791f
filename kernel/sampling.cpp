#include "kernel/sampling.h"

#include <algorithm>

#include "kernel/sinecosine.h"

namespace {

std::int64_t FloorDivide(std::int64_t numerator, std::int64_t positiveDenominator) {
  const std::int64_t quotient = numerator / positiveDenominator;
  return quotient - (numerator % positiveDenominator < 0 ? 1 : 0);
}

/// Columns of `within` with 0 <= start + column·step < limit.
ColumnRun ColumnsBelow(std::int64_t start, std::int64_t step, std::int64_t limit, ColumnRun within) {
  const ColumnRun none = {within.begin, within.begin};
  if (limit <= 0) return none;
  if (step == 0) return start >= 0 && start < limit ? within : none;
  // Mirrors a falling line into a rising one.
  if (step < 0) {
    start = limit - 1 - start;
    step = -step;
  }
  // Avoids the division when all of `within` is inside, as it usually is.
  const std::int64_t first = start + within.begin * step >= 0 ? within.begin : -FloorDivide(start, step);
  const std::int64_t end =
      start + within.end * step < limit ? within.end : FloorDivide(limit - 1 - start, step) + 1;
  return {static_cast<std::int32_t>(std::clamp<std::int64_t>(first, within.begin, within.end)),
          static_cast<std::int32_t>(std::clamp<std::int64_t>(end, within.begin, within.end))};
}

}  // namespace

ColumnRun UsableColumns(const SourceLine& line, std::int32_t width, std::int32_t height, ColumnRun within) {
  const auto limit = [&](std::int32_t side) { return (side - std::int64_t{1}) << line.fractionBits; };
  return ColumnsBelow(line.startY, line.stepY, limit(height),
                      ColumnsBelow(line.startX, line.stepX, limit(width), within));
}

ColumnRun Intersect(ColumnRun a, ColumnRun b) { return {std::max(a.begin, b.begin), std::min(a.end, b.end)}; }

FixedRotation::FixedRotation(double radians, int bits) {
  const SineCosine angle = ComputeSineCosine(radians);
  const auto one = static_cast<double>(std::int64_t{1} << bits);
  cosine = static_cast<std::int64_t>(angle.cosine * one);
  sine = static_cast<std::int64_t>(angle.sine * one);
}
