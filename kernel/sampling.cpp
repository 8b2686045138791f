#include "kernel/sampling.h"

#include "kernel/sinecosine.h"

ColumnRun UsableColumns(const SourceLine& line, std::int32_t width, std::int32_t height, ColumnRun within) {
  const auto usable = [&](std::int32_t side) {
    return PositionRange{0, (side - std::int64_t{1}) << line.fractionBits};
  };
  return ColumnsInside(line.startY, line.stepY, usable(height),
                       ColumnsInside(line.startX, line.stepX, usable(width), within));
}

FixedRotation::FixedRotation(double radians, int bits) {
  const SineCosine angle = ComputeSineCosine(radians);
  const auto one = static_cast<double>(std::int64_t{1} << bits);
  cosine = static_cast<std::int64_t>(angle.cosine * one);
  sine = static_cast<std::int64_t>(angle.sine * one);
}
