#include "kernel/gaussianpyramid.h"

#include <algorithm>
#include <span>
#include <utility>

namespace {

constexpr int kMaxLevels = 5;
constexpr std::int32_t kMinReducedSide = 80;
// Output sample (i, j) of a reduction is centred on source sample (6 + 2i, 6 + 2j).
constexpr std::int32_t kFirstCentre = 6;

constexpr std::int32_t ReducedSide(std::int32_t side) { return (side - 3) / 2 - 4; }

// A level without whole planes keeps its newest rows only. A reduction reads the newest five.
constexpr std::int32_t kNewestRows = 8;
// The frame is copied in blocks of rows, and each block is converted to grey while it is still in the cache.
constexpr std::ptrdiff_t kBlockBytes = 64 << 10;

/// Call when `row` of the first level is complete. Makes the rows of the coarser levels that it completes.
void ReduceOnward(std::span<GaussianPyramidCalcParams> levels, std::int32_t row, const KernelOps& ops) {
  if (levels.size() < 2) return;
  // A reduction reads two rows on either side of its centre, so this row completes the one centred two rows
  // earlier.
  const std::int32_t reducedRow = (row - 2 - kFirstCentre) / 2;
  if (row < kFirstCentre + 2 || row % 2 != 0 || reducedRow >= levels[1].height) return;
  FiveRows rows = {};
  for (std::int32_t i = 0; i < 5; ++i)
    rows[static_cast<std::size_t>(i)] = levels[0].CurrentRow(row - 4 + i) + kFirstCentre;
  ops.reduceRow(rows, levels[1].CurrentRow(reducedRow), levels[1].width);
  ReduceOnward(levels.subspan(1), reducedRow, ops);
}

}  // namespace

GaussianPyramidCalcParams::GaussianPyramidCalcParams(std::int32_t levelWidth, std::int32_t levelHeight,
                                                     bool keepsPlanes)
    : width(levelWidth),
      height(levelHeight),
      previousPlane(levelWidth, keepsPlanes ? levelHeight : 0),
      currentPlane(levelWidth, keepsPlanes ? levelHeight : kNewestRows) {}

std::vector<GaussianPyramidCalcParams> MakePyramid(std::int32_t width, std::int32_t height,
                                                   std::size_t finestKept) {
  std::vector<GaussianPyramidCalcParams> levels;
  levels.reserve(kMaxLevels);
  for (bool isLast = false; !isLast;) {
    const std::int32_t nextWidth = ReducedSide(width), nextHeight = ReducedSide(height);
    isLast = levels.size() + 1 == kMaxLevels || nextWidth < kMinReducedSide || nextHeight < kMinReducedSide;
    levels.emplace_back(width, height, isLast || levels.size() >= finestKept);
    width = nextWidth;
    height = nextHeight;
  }
  return levels;
}

void BuildPyramid(std::vector<GaussianPyramidCalcParams>& levels, const std::uint8_t* pixels,
                  const FrameGeometry& frame, const Rect& roi, std::uint8_t* copy, const KernelOps& ops) {
  for (GaussianPyramidCalcParams& level : levels)
    if (level.previousPlane.Height() > 0) std::swap(level.previousPlane, level.currentPlane);

  GaussianPyramidCalcParams& finest = levels.front();
  const std::int32_t firstRow = frame.height - roi.bottom, endRow = frame.height - roi.top;
  const auto blockRows =
      static_cast<std::int32_t>(std::max<std::ptrdiff_t>(kBlockBytes / frame.strideBytes, 1));
  for (std::int32_t begin = 0; begin < frame.height; begin += blockRows) {
    const std::int32_t end = std::min(frame.height, begin + blockRows);
    ops.copyBytes(pixels + frame.Offset(0, begin), copy + frame.Offset(0, begin),
                  (end - begin) * frame.strideBytes);
    for (std::int32_t row = std::max(begin, firstRow); row < std::min(end, endRow); ++row) {
      ops.greyRow(pixels + frame.Offset(roi.left, row), finest.CurrentRow(row - firstRow), finest.width);
      ReduceOnward(levels, row - firstRow, ops);
    }
  }
}
