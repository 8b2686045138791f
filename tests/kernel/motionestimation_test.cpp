#include "kernel/motionestimation.h"

#include <cmath>
#include <gtest/gtest.h>
#include <random>

#include "kernel/leastsquares.h"
#include "referencemodel.h"
#include "support/scene.h"

namespace {

constexpr std::int64_t kFarAway[] = {-40000000000, -2147483649, -300, 300, 2147483647, 40000000000};

TEST(ComparableSamples, AreTheRectangleOfTheLiteralMask) {
  for (const auto& [width, height] : {std::pair{1, 1}, {1, 9}, {4, 4}, {5, 7}, {9, 6}, {12, 12}}) {
    std::vector<std::int64_t> shifts(std::begin(kFarAway), std::end(kFarAway));
    for (int shift = -14; shift <= 14; ++shift) shifts.push_back(shift);
    for (const std::int64_t x : shifts) {
      for (const std::int64_t y : shifts) {
        const std::vector<std::int32_t> mask = reference::BuildTranslationMask(width, height, x, y);
        const Rect window = ComparableSamples(width, height, x, y);
        for (int row = 1; row < height - 1; ++row) {
          for (int column = 0; column < width; ++column) {
            const bool inside =
                row >= window.top && row < window.bottom && column >= window.left && column < window.right;
            const bool usable = mask[static_cast<std::size_t>(row * width + column)] != -1;
            ASSERT_EQ(inside, usable)
                << width << "x" << height << " shift " << x << "," << y << " at " << column << "," << row;
          }
        }
      }
    }
  }
}

TEST(ComparableColumns, AreTheRunsOfTheLiteralMaskOfARotatedPlane) {
  constexpr int kWidth = 37, kHeight = 29;
  std::vector<ColumnRun> usable(kHeight);
  std::mt19937 random(3);
  for (int round = 0; round < 400; ++round) {
    const double theta =
        std::ldexp(static_cast<double>(random() % 2001) - 1000.0, static_cast<int>(random() % 4) - 7);
    const int x = static_cast<int>(random() % 31) - 15, y = static_cast<int>(random() % 31) - 15;
    FindUsableColumns(kWidth, kHeight, theta, usable);
    std::vector<std::int32_t> validity(static_cast<std::size_t>(kWidth) * kHeight, -1);
    for (std::size_t row = 0; row < kHeight; ++row)
      for (int column = usable[row].begin; column < usable[row].end; ++column)
        validity[row * kWidth + static_cast<std::size_t>(column)] = 0;

    const std::vector<std::int32_t> mask = reference::BuildMask(validity, kWidth, kHeight, x, y);
    const Rect window = ComparableSamples(kWidth, kHeight, x, y);
    for (int row = 1; row < kHeight - 1; ++row) {
      ColumnRun run = {0, 0};
      if (row >= window.top && row < window.bottom && window.left < window.right)
        run = ComparableColumns(window, usable, row, x, y);
      for (int column = 0; column < kWidth; ++column)
        ASSERT_EQ(column >= run.begin && column < run.end,
                  mask[static_cast<std::size_t>(row * kWidth + column)] != -1)
            << "theta " << theta << " shift " << x << "," << y << " at " << column << "," << row;
    }
  }
}

/// Motion between two poses, estimated over a whole pyramid.
MotionRecord Estimate(const Scene& scene, const CameraPose& from, const CameraPose& to,
                      std::uint32_t coefficients, std::uint32_t quality) {
  const FrameGeometry& frame = scene.Frame();
  auto levels = MakePyramid(frame.width, frame.height);
  RotationScratch scratch(frame.width, frame.height);
  for (const CameraPose& pose : {from, to})
    BuildPyramid(levels, scene.Shoot(pose).data(), frame, {0, 0, frame.width, frame.height}, nullptr,
                 kScalarOps);
  return EstimateMotion(levels, coefficients, quality, scratch, kScalarOps);
}

TEST(MotionEstimation, FindsAShiftOfTheContent) {
  const Scene scene({640, 480}, 24);
  const CameraPose moved = {-5, 3, 0};
  for (const std::uint32_t quality : {0U, 1U}) {
    const MotionRecord motion = Estimate(scene, {}, moved, 0, quality);
    EXPECT_EQ(motion.dx, 5);
    EXPECT_EQ(motion.dy, -3);
    EXPECT_EQ(motion.theta, 0.0);
  }
  for (const std::uint32_t quality : {2U, 3U}) {
    const MotionRecord motion = Estimate(scene, {}, moved, 0, quality);
    EXPECT_NEAR(motion.dx, 5, 4) << "quality " << quality;
    EXPECT_NEAR(motion.dy, -3, 4) << "quality " << quality;
  }
}

TEST(MotionEstimation, FindsARotationWhereItIsEstimated) {
  const Scene scene({640, 480}, 24);
  const MotionRecord fine = Estimate(scene, {}, {0, 0, 1.5}, 1, 0);
  EXPECT_NEAR(fine.theta, -1.5, 0.1) << "the content turns against the camera";
  EXPECT_NEAR(fine.dx, 0, 1);
  const MotionRecord coarse = Estimate(scene, {}, {-16, 8, 1.5}, 1, 3);
  EXPECT_EQ(coarse.theta, 0.0);
  EXPECT_EQ(coarse.dx % 4, 0);
  EXPECT_EQ(coarse.dy % 4, 0);
  EXPECT_GT(coarse.dx, 0);
}

TEST(MotionEstimation, FindsNothingBetweenEqualFrames) {
  const Scene scene({320, 240}, 8);
  for (const std::uint32_t coefficients : {0U, 1U, 2U, 0xFFFFFFFFU}) {
    const MotionRecord motion = Estimate(scene, {}, {}, coefficients, 0);
    EXPECT_EQ(motion.dx, 0);
    EXPECT_EQ(motion.dy, 0);
    EXPECT_EQ(motion.theta, 0.0);
  }
}

TEST(Solver, LeavesAxesWithoutGradientAtZero) {
  const MotionUpdate x = SolveTranslation({.xx = 4, .xy = 0, .yy = 0, .xt = 6, .yt = 5});
  EXPECT_EQ(x.x, -3.0);
  EXPECT_EQ(x.y, 0.0);
  const MotionUpdate y = SolveTranslation({.xx = 0, .xy = 0, .yy = 8, .xt = 6, .yt = 4});
  EXPECT_EQ(y.x, 0.0);
  EXPECT_EQ(y.y, -1.0);

  const std::int64_t unit = std::int64_t{1} << 33;
  for (const std::int64_t scale : {std::int64_t{1}, unit}) {
    const MotionUpdate theta = SolveRotation({.rr = 2 * scale, .rt = 3 * scale});
    EXPECT_EQ(theta.theta, -3.0) << "scaled entries are brought back";
    const MotionUpdate pair =
        SolveRotation({.rr = 2 * scale, .yy = 4 * scale, .rt = 2 * scale, .yt = 2 * scale});
    EXPECT_EQ(pair.theta, -2.0);
    EXPECT_EQ(pair.x, 0.0);
    EXPECT_EQ(pair.y, -1.0);
    const MotionUpdate shift =
        SolveRotation({.xx = 2 * scale, .yy = 4 * scale, .xt = 2 * scale, .yt = 2 * scale});
    EXPECT_EQ(shift.theta, 0.0);
    EXPECT_EQ(shift.x, -2.0);
    EXPECT_EQ(shift.y, -1.0);
    const MotionUpdate all = SolveRotation({.rr = 2 * scale,
                                            .xx = 4 * scale,
                                            .yy = 8 * scale,
                                            .rt = 2 * scale,
                                            .xt = 2 * scale,
                                            .yt = 2 * scale});
    EXPECT_EQ(all.theta, -2.0);
    EXPECT_EQ(all.x, -1.0);
    EXPECT_EQ(all.y, -0.5);
  }
}

TEST(Solver, GivesAZeroUpdateWhenTheEquationsSayNothing) {
  const auto expectZero = [](const MotionUpdate& update) {
    EXPECT_EQ(update.theta, 0.0);
    EXPECT_EQ(update.x, 0.0);
    EXPECT_EQ(update.y, 0.0);
  };
  expectZero(SolveTranslation({}));
  expectZero(SolveRotation({}));
  expectZero(SolveTranslation({.xx = 4, .xy = 4, .yy = 4, .xt = 1, .yt = 1}));
  expectZero(SolveRotation({.rr = 4, .rx = 4, .xx = 4, .yy = 1, .rt = 1}));
}

TEST(Solver, ScalesOnlyEntriesAbove2To31) {
  // Scaling drops the lowest 10 bits: the second row vanishes with it and stays without it.
  const std::int64_t limit = std::int64_t{1} << 31;
  const auto estimatesX = [](const RotationSums& sums) { return SolveRotation(sums).x != 0; };
  EXPECT_TRUE(estimatesX({.rr = limit, .xx = 1000, .xt = 1000}));
  EXPECT_FALSE(estimatesX({.rr = limit + 1, .xx = 1000, .xt = 1000}));
  EXPECT_TRUE(estimatesX({.rr = 1, .ry = -limit - 1, .xx = 1000, .yy = 1, .xt = 1000}))
      << "the test is signed";
  EXPECT_FALSE(estimatesX({.rr = 1, .ry = limit + 1, .xx = 1000, .yy = 1, .xt = 1000}))
      << "every entry counts";
}

TEST(Solver, RoundsStepsBeforeItJudgesThem) {
  // 2147483647.5 rounds to 2^31, which does not fit.
  EXPECT_EQ(SolveTranslation({.xx = 4, .yy = 1, .xt = -4294967295, .yt = 1}).y, 0.0);
  EXPECT_EQ(SolveTranslation({.xx = 4, .yy = 1, .xt = -4294967294, .yt = 1}).y, -2.0);
}

TEST(Solver, AcceptsTheLargestStepsOnly) {
  const std::int64_t half = std::int64_t{1} << 30;
  EXPECT_EQ(SolveTranslation({.xx = 1, .yy = 1, .xt = half, .yt = 1}).x, -2147483648.0);
  EXPECT_EQ(SolveTranslation({.xx = 1, .yy = 1, .xt = half + 1, .yt = 1}).y, 0.0);
  EXPECT_EQ(SolveTranslation({.xx = 1, .yy = 1, .xt = -half, .yt = 1}).y, 0.0);
}

TEST(Solver, WrapsTheSquareOfTheMixedSumAt64Bits) {
  // b² = 2^64 wraps to 0, so the determinant is a·d and the matrix is not the singular one it seems.
  const std::int64_t b = std::int64_t{1} << 32;
  const MotionUpdate update = SolveTranslation({.xx = b, .xy = b, .yy = b, .xt = 2 * b, .yt = b});
  EXPECT_EQ(update.x, -2.0 * (1.0 * 2 - 1.0));
  EXPECT_EQ(update.y, -2.0 * (-2.0 + 1.0));
}

}  // namespace
