#pragma once

#include <cstdint>

// Which columns of a row can be read along a line through a source picture.

/// Columns begin … end - 1 of a row; none when end <= begin.
struct ColumnRun {
  std::int32_t begin, end;
};

/// Fixed-point positions low ≤ x < high.
struct PositionRange {
  std::int64_t low, high;
};

/// The columns c of `within` whose position start + c·step lies inside the range. They form one run, since
/// the position advances linearly. `end` is never below `begin`. `within.begin` must be at least 0. Positions
/// up to column `within.end`, and the range, must have magnitudes below 2^62.
ColumnRun ColumnsInside(std::int64_t start, std::int64_t step, PositionRange range, ColumnRun within);

namespace {

/// The columns that are in both runs. Each file has its own copy: a shared one, compiled for wide vectors,
/// could be linked into code that must run on any processor.
inline ColumnRun Intersect(ColumnRun a, ColumnRun b) {
  return {a.begin > b.begin ? a.begin : b.begin, a.end < b.end ? a.end : b.end};
}

}  // namespace
