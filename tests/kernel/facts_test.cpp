#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <utility>

#include "kernel/dispatch.h"
#include "kernel/framecompensation.h"
#include "kernel/gaussianpyramid.h"
#include "kernel/leastsquares.h"
#include "kernel/motionestimation.h"
#include "kernel/pathsmoothing.h"
#include "kernel/sampling.h"
#include "kernel/sinecosine.h"
#include "kernel/stabilizevideokernel.h"
#include "scenes/scene.h"
#include "support/params.h"

// Literal numbers: what the kernel and its model could both get wrong, and what no test's frames reach.

namespace {

std::uint64_t Digest(std::uint64_t digest, std::initializer_list<double> values) {
  for (const double value : values) {
    const auto bits = std::bit_cast<std::uint64_t>(value);
    digest = (digest ^ bits ^ bits >> 32) * 0x100000001B3U;
  }
  return digest;
}

TEST(Facts, RedCountsTwiceInGrey) {
  constexpr std::uint8_t kPixels[] = {0, 0, 255, 0, 255, 0, 255, 0, 0, 255, 255, 255, 100, 100, 100};
  for (const KernelOps* const ops : AvailableOps()) {
    std::array<std::int16_t, 5> grey = {};
    ops->greyRow(kPixels, grey.data(), 5);
    EXPECT_EQ(grey, (std::array<std::int16_t, 5>{510, 255, 255, 1020, 400})) << ops->name;
  }
}

TEST(Facts, TheNearestSampleIsTheNextFrom255Of512On) {
  constexpr std::uint8_t kPixels[] = {1, 1, 1, 2, 2, 2, 0, 0, 3, 3, 3, 4, 4, 4, 0, 0};
  constexpr int kBits = 21, kPart = 1 << (kBits - 9);
  for (const auto& [x, y, value] : {std::array{254, 254, 1}, {255, 254, 2}, {254, 255, 3}, {511, 255, 4}}) {
    std::uint8_t pixel[3] = {};
    kScalarOps.warpRowNearest(kPixels, 8, {x * kPart, y * kPart, 0, 0, kBits}, {0, 1}, pixel);
    EXPECT_EQ(pixel[0], value) << x << ", " << y;
  }
}

TEST(Facts, UsableColumnsAreThoseWhoseFourNeighboursExist) {
  constexpr int kBits = 12;
  for (const std::int64_t stepX : {-9000, -4096, -1, 0, 1, 4096, 5000})
    for (const std::int64_t stepY : {-9000, -4096, -1, 0, 1, 4096, 5000})
      for (const std::int64_t start : {-30000, -4096, -1, 0, 4095, 30000, 40960, 60000}) {
        const SourceLine line = {start, 50000 - start, stepX, stepY, kBits};
        const ColumnRun run = UsableColumns(line, 11, 13, {2, 40});
        for (std::int32_t column = 2; column < 40; ++column) {
          const std::int64_t x = (line.startX + column * stepX) >> kBits,
                             y = (line.startY + column * stepY) >> kBits;
          ASSERT_EQ(column >= run.begin && column < run.end, x >= 0 && x < 10 && y >= 0 && y < 12);
        }
      }
}

TEST(Facts, NoSampleCanBeComparedFarAway) {
  for (const std::int64_t shift :
       std::initializer_list<std::int64_t>{-40000000000, -4294967296, -13, 13, 4294967296, 4294967297}) {
    const Rect across = ComparableSamples(12, 9, shift, 0), along = ComparableSamples(9, 12, 0, shift);
    EXPECT_GE(across.left, across.right) << shift;
    EXPECT_GE(along.top, along.bottom) << shift;
  }
}

TEST(Facts, AKnownShiftIsFoundExactlyAndRowsOfOddCropsArePadded) {
  const Scene scene({320, 240}, 24);
  CStabilizeVideoKernel kernel;
  KernelParams params = DefaultParams(320, 240);
  params.estimationQuality = 0;
  ASSERT_TRUE(kernel.Initialize(params));
  for (const CameraPose& pose : {CameraPose{}, CameraPose{5, -3, 0}}) {
    bool noOutput = false;
    ASSERT_TRUE(kernel.ProcessFrame(scene.Shoot(pose).data(), false, &noOutput));
  }
  EXPECT_EQ(kernel.LatestMotion().dx, -5) << "the content moves against the camera";
  EXPECT_EQ(kernel.LatestMotion().dy, 3);
  EXPECT_EQ(PackedCropPitch(101), 306);
}

TEST(Facts, ThePyramidKeepsLevelsOfAtLeast80UpToFive) {
  using Sizes = std::vector<std::pair<std::int32_t, std::int32_t>>;
  for (const Sizes& sizes : {Sizes{{640, 480}, {314, 234}, {151, 111}},
                             {{160, 160}},
                             {{171, 171}, {80, 80}},
                             {{170, 1000}},
                             {{4000, 3000}, {1994, 1494}, {991, 741}, {490, 365}, {239, 177}}}) {
    Sizes made;
    for (const auto& level : MakePyramid(sizes[0].first, sizes[0].second))
      made.emplace_back(level.width, level.height);
    EXPECT_EQ(made, sizes);
  }
}

TEST(Facts, TheSolversUpdatesHaveTheseBits) {
  std::mt19937_64 random(9);
  // Sums that take every branch: zeros, neighbours of powers of two, and any up to 2^44.
  const auto any = [&] {
    const std::int64_t power = std::int64_t{1} << random() % 44;
    const std::int64_t sums[] = {0,
                                 0,
                                 power,
                                 power + 1,
                                 power - 1,
                                 static_cast<std::int64_t>(random() % 4) * power,
                                 static_cast<std::int64_t>(random() >> 20)};
    const std::int64_t sum = sums[random() % std::size(sums)];
    return random() % 3 == 0 ? -sum : sum;
  };
  std::uint64_t digest = 0;
  for (int round = 0; round < 300000; ++round) {
    std::int64_t s[9];
    for (std::int64_t& sum : s) sum = any();
    const MotionUpdate turned = SolveRotation({.rr = s[0],
                                               .rx = s[1],
                                               .ry = s[2],
                                               .xx = s[3],
                                               .xy = s[4],
                                               .yy = s[5],
                                               .rt = s[6],
                                               .xt = s[7],
                                               .yt = s[8]});
    const MotionUpdate moved = SolveTranslation({.xx = s[3], .xy = s[4], .yy = s[5], .xt = s[7], .yt = s[8]});
    // Zero has two signs, which no frame shows.
    digest =
        Digest(digest, {turned.theta + 0.0, turned.x + 0.0, turned.y + 0.0, moved.x + 0.0, moved.y + 0.0});
  }
  EXPECT_EQ(digest, 13140638027554748006U);
  EXPECT_EQ(SolveTranslation({.xx = 8, .xy = 0, .yy = 2, .xt = 4, .yt = -3}).x, -1);
}

TEST(Facts, SineAndCosineHaveTheseBitsAtAnyAngle) {
  std::mt19937_64 random(6);
  std::uint64_t digest = 0;
  for (int i = 0; i < 100000; ++i) {
    const double scale = std::ldexp(1.0, static_cast<int>(random() % 51) - 30);
    const double angle = (static_cast<double>(random() >> 11) * 0x1p-53 * 2 - 1) * scale;
    const SineCosine computed = ComputeSineCosine(angle);
    digest = Digest(digest, {computed.sine, computed.cosine});
    EXPECT_NEAR(computed.sine, std::sin(angle), 1e-13);
    EXPECT_NEAR(computed.cosine, std::cos(angle), 1e-13);
  }
  EXPECT_EQ(digest, 9282881792045844913U);
  for (const double angle : {1e9, -1e300, std::numeric_limits<double>::infinity(), std::nan("")}) {
    const SineCosine computed = ComputeSineCosine(angle);
    EXPECT_NEAR(computed.sine * computed.sine + computed.cosine * computed.cosine, 1, 1e-15) << angle;
  }
}

TEST(Facts, ThePathPullsAJoltBackDropsFarCorrectionsAndWrapsItsSums) {
  const auto correct = [](MotionRecord jolt, std::int32_t width = 100) {
    Ring<MotionRecord> ring(4);
    for (const MotionRecord& motion : {MotionRecord{}, {}, jolt, {}}) {
      ring.NextSlot() = motion;
      ring.Append();
    }
    return ComputeCorrection(ring, FindPathWeights(4, false), width, 103);
  };
  EXPECT_EQ(correct({-3, 0, 2.0}).dx, -1) << "toward zero";
  EXPECT_EQ(correct({-3, 0, 2.0}).theta, -1.0);
  EXPECT_TRUE(std::signbit(correct({}).theta));
  struct Case {
    std::int32_t dx, dy, width, correctedX, correctedY;
  };
  // 0.6 of a side of 3495258 is 2097154.8; as a single-precision product it is 2097155. 2·2^30 wraps to
  // -2^31.
  for (const Case& test : {Case{59, 60, 100, 59, 60},
                           {60, 60, 100, 0, 60},
                           {-60, 61, 100, 0, 0},
                           {2097154, 0, 3495258, 2097154, 0},
                           {2097155, 0, 3495258, 0, 0},
                           {1 << 29, 0, 1 << 30, -(1 << 29), 0}}) {
    const MotionRecord correction = correct({2 * test.dx, 2 * test.dy, 90.0}, test.width);
    EXPECT_EQ(correction.dx, test.correctedX) << test.dx;
    EXPECT_EQ(correction.dy, test.correctedY) << test.dy;
    EXPECT_EQ(correction.theta, -45.0);
  }
}

TEST(Facts, TheNearestTabulatedZoomIsChosen) {
  constexpr auto kStretch = ClippingOption::CropAndStretch;
  EXPECT_EQ(ComputeZoom(ClippingOption::Crop, 640, 480, 64, 48), 32);
  // The second needs 151 / 125, which is nearer to 1.1852 than to 1.2308, but not to the exact ratios.
  for (const auto& [width, height, marginX, marginY, step] : {std::array{640, 480, 64, 48, 26},
                                                              {151, 151, 13, 0, 26},
                                                              {640, 480, 0, 0, 32},
                                                              {640, 480, 160, 0, 16},
                                                              {640, 480, 0, 239, 16},
                                                              {104948, 100, 2474, 0, 31}})
    EXPECT_EQ(ComputeZoom(kStretch, width, height, marginX, marginY), step) << width << ", " << marginX;
  std::uint64_t digest = 0;
  for (std::int32_t side = 3; side < 1500; ++side)
    for (std::int32_t margin = 1; 4 * margin < side; ++margin)
      digest = Digest(digest, {double{1} * ComputeZoom(kStretch, side, 3, margin, 0)});
  EXPECT_EQ(digest, 12150983320185012224U);
}

TEST(Facts, ThePathWeightsAreThese) {
  std::uint64_t digest = 0;
  for (const std::int32_t window : {4, 8, 12, 16, 24, 32, 64, 128})
    for (const bool isGaussian : {false, true}) {
      const PathWeights weights = FindPathWeights(window, isGaussian);
      for (const std::int32_t weight : weights.entries)
        digest = Digest(digest, {double{1} * weight, double{1} * weights.divisor});
    }
  EXPECT_EQ(digest, 17960916096800522240U);
}

}  // namespace
