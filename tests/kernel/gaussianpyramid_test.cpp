#include "kernel/gaussianpyramid.h"

#include <gtest/gtest.h>
#include <utility>

namespace {

using Sizes = std::vector<std::pair<std::int32_t, std::int32_t>>;

Sizes SizesOf(const std::vector<GaussianPyramidCalcParams>& levels) {
  Sizes sizes;
  for (const auto& level : levels) sizes.emplace_back(level.width, level.height);
  return sizes;
}

TEST(GaussianPyramid, KeepsLevelsOfAtLeast80UpToFive) {
  EXPECT_EQ(SizesOf(MakePyramid(640, 480)), (Sizes{{640, 480}, {314, 234}, {151, 111}}));
  EXPECT_EQ(SizesOf(MakePyramid(160, 160)), (Sizes{{160, 160}}));
  EXPECT_EQ(SizesOf(MakePyramid(171, 171)), (Sizes{{171, 171}, {80, 80}}));
  EXPECT_EQ(SizesOf(MakePyramid(170, 1000)), (Sizes{{170, 1000}}));
  EXPECT_EQ(SizesOf(MakePyramid(1, 1)), (Sizes{{1, 1}}));
  EXPECT_EQ(MakePyramid(4000, 4000).size(), 5U);
}

TEST(GaussianPyramid, ReadsTheRegionBottomUpWithRedDoubledAndKeepsThePreviousPlane) {
  // 3 × 4 picture; the region is its two middle picture rows, columns 1 and 2.
  const FrameGeometry frame(3, 4);
  std::vector<std::uint8_t> pixels(static_cast<std::size_t>(frame.SizeBytes()));
  const auto paint = [&](std::int32_t column, std::int32_t pictureRow, int channel) {
    pixels[static_cast<std::size_t>(frame.Offset(column, 3 - pictureRow) + channel)] = 255;
  };
  paint(1, 1, 0);
  paint(2, 1, 1);
  paint(1, 2, 2);
  for (int channel = 0; channel < 3; ++channel) paint(2, 2, channel);
  auto levels = MakePyramid(2, 2);
  BuildPyramid(levels, pixels.data(), frame, {1, 1, 3, 3}, nullptr, kScalarOps);

  const Plane& plane = levels[0].currentPlane;
  EXPECT_EQ(plane.Row(1)[0], 255) << "blue";
  EXPECT_EQ(plane.Row(1)[1], 255) << "green";
  EXPECT_EQ(plane.Row(0)[0], 510) << "red";
  EXPECT_EQ(plane.Row(0)[1], 1020) << "white";

  const std::vector<std::uint8_t> black(pixels.size());
  BuildPyramid(levels, black.data(), frame, {1, 1, 3, 3}, nullptr, kScalarOps);
  EXPECT_EQ(levels[0].previousPlane.Row(0)[1], 1020);
  EXPECT_EQ(levels[0].currentPlane.Row(0)[1], 0);
}

}  // namespace
