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

}  // namespace
