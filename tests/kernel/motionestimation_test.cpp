#include "kernel/motionestimation.h"

#include <gtest/gtest.h>
#include <random>

#include "kernel/leastsquares.h"
#include "referencemodel.h"

namespace {

TEST(ComparableSamples, AreTheRectangleOfTheLiteralMask) {
  std::vector<std::int64_t> shifts = {-40000000000, -2147483649, 2147483647, 40000000000};
  for (int shift = -14; shift <= 14; ++shift) shifts.push_back(shift);
  for (const auto& [width, height] : {std::pair{1, 1}, {1, 9}, {4, 4}, {5, 7}, {9, 6}, {12, 12}}) {
    for (const std::int64_t x : shifts) {
      for (const std::int64_t y : shifts) {
        const std::vector<std::int32_t> mask = reference::BuildTranslationMask(width, height, x, y);
        const Rect window = ComparableSamples(width, height, x, y);
        for (int i = width; i < width * (height - 1); ++i) {
          const int row = i / width, column = i % width;
          const bool inside =
              row >= window.top && row < window.bottom && column >= window.left && column < window.right;
          ASSERT_EQ(inside, mask[static_cast<std::size_t>(i)] != -1)
              << width << "x" << height << " shift " << x << "," << y << " at " << column << "," << row;
        }
      }
    }
  }
}

/// Numbers that take every branch of the solver: zeros, neighbours of powers of two, and any up to 2^44.
std::int64_t RandomSum(std::mt19937_64& random) {
  const std::int64_t power = std::int64_t{1} << random() % 44;
  const std::int64_t sums[] = {0,
                               0,
                               power,
                               power + 1,
                               power - 1,
                               static_cast<std::int64_t>(random() % 4) * power,
                               static_cast<std::int64_t>(random() >> 20)};
  return sums[random() % std::size(sums)] * (random() % 3 == 0 ? -1 : 1);
}

void ExpectSameUpdate(const MotionUpdate& actual, const reference::Update& expected,
                      const reference::Equations& equations) {
  const bool isSame = actual.theta == expected.theta && actual.x == expected.x && actual.y == expected.y;
  ASSERT_TRUE(isSame) << actual.theta << ' ' << actual.x << ' ' << actual.y << " for "
                      << ::testing::PrintToString(equations.matrix) << ' '
                      << ::testing::PrintToString(equations.vector);
}

TEST(Solver, EqualsTheLiteralOneForSumsOfAnyKind) {
  std::mt19937_64 random(9);
  for (int round = 0; round < 300000; ++round) {
    reference::Equations e;
    for (std::size_t i = 0; i < 3; ++i) {
      e.vector[i] = RandomSum(random);
      for (std::size_t j = 0; j <= i; ++j) e.matrix[i][j] = e.matrix[j][i] = RandomSum(random);
    }
    const auto& m = e.matrix;
    ExpectSameUpdate(SolveRotation({.rr = m[0][0],
                                    .rx = m[0][1],
                                    .ry = m[0][2],
                                    .xx = m[1][1],
                                    .xy = m[1][2],
                                    .yy = m[2][2],
                                    .rt = e.vector[0],
                                    .xt = e.vector[1],
                                    .yt = e.vector[2]}),
                     reference::SolveRotation(e), e);
    ExpectSameUpdate(
        SolveTranslation({.xx = m[1][1], .xy = m[1][2], .yy = m[2][2], .xt = e.vector[1], .yt = e.vector[2]}),
        reference::SolveTranslation(e), e);
    if (HasFatalFailure()) return;
  }
}

}  // namespace
