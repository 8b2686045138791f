#include "kernel/gaussianpyramid.h"

#include <utility>

namespace {

constexpr int kMaxLevels = 5;
constexpr std::int32_t kMinReducedSide = 80;
// Output sample (i, j) of a reduction is centred on source sample (6 + 2i, 6 + 2j).
constexpr std::int32_t kFirstCentre = 6;

constexpr std::int32_t ReducedSide(std::int32_t side) { return (side - 3) / 2 - 4; }

void ConvertToGrey(const std::uint8_t* pixels, const FrameGeometry& frame, const Rect& roi, Plane& grey,
                   const KernelOps& ops) {
  const std::int32_t firstRow = frame.height - roi.bottom;
  for (std::int32_t row = 0; row < grey.Height(); ++row)
    ops.greyRow(pixels + frame.Offset(roi.left, firstRow + row), grey.Row(row), grey.Width());
}

void Reduce(const Plane& source, Plane& reduced, const KernelOps& ops) {
  for (std::int32_t row = 0; row < reduced.Height(); ++row)
    ops.reduceRow(source.Row(kFirstCentre + 2 * std::int64_t{row}) + kFirstCentre, source.Width(),
                  reduced.Row(row), reduced.Width());
}

}  // namespace

GaussianPyramidCalcParams::GaussianPyramidCalcParams(std::int32_t levelWidth, std::int32_t levelHeight)
    : width(levelWidth),
      height(levelHeight),
      previousPlane(levelWidth, levelHeight),
      currentPlane(levelWidth, levelHeight) {}

std::vector<GaussianPyramidCalcParams> MakePyramid(std::int32_t width, std::int32_t height) {
  std::vector<GaussianPyramidCalcParams> levels;
  levels.reserve(kMaxLevels);
  do {
    levels.emplace_back(width, height);
    width = ReducedSide(width);
    height = ReducedSide(height);
  } while (levels.size() < kMaxLevels && width >= kMinReducedSide && height >= kMinReducedSide);
  return levels;
}

void BuildPyramid(std::vector<GaussianPyramidCalcParams>& levels, const std::uint8_t* pixels,
                  const FrameGeometry& frame, const Rect& roi, const KernelOps& ops) {
  for (GaussianPyramidCalcParams& level : levels) std::swap(level.previousPlane, level.currentPlane);
  ConvertToGrey(pixels, frame, roi, levels.front().currentPlane, ops);
  for (std::size_t i = 1; i < levels.size(); ++i)
    Reduce(levels[i - 1].currentPlane, levels[i].currentPlane, ops);
}
