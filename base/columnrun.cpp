#include "base/columnrun.h"

#include <algorithm>

namespace {

/// The first column of `within` whose position on a rising line is at least `value`; the end of `within`
/// where there is none. Most calls need no division, as most lines lie inside the picture.
std::int32_t FirstColumnFrom(std::int64_t start, std::int64_t step, std::int64_t value, ColumnRun within) {
  if (start + within.begin * step >= value || within.begin >= within.end) return within.begin;
  if (start + within.end * step < value) return within.end;
  return static_cast<std::int32_t>((value - start + step - 1) / step);
}

}  // namespace

ColumnRun ColumnsInside(std::int64_t start, std::int64_t step, PositionRange range, ColumnRun within) {
  // Negation makes a falling line rise: low <= x < high becomes 1 - high <= -x < 1 - low.
  if (step < 0) {
    start = -start;
    step = -step;
    range = {1 - range.high, 1 - range.low};
  }
  const std::int32_t begin = FirstColumnFrom(start, step, range.low, within);
  return {begin, std::max(begin, FirstColumnFrom(start, step, range.high, within))};
}
