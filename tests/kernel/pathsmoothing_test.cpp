#include "kernel/pathsmoothing.h"

#include <cmath>
#include <gtest/gtest.h>
#include <numeric>

namespace {

constexpr std::int32_t kWindows[] = {4, 8, 12, 16, 24, 32, 64, 128};

/// The correction for a window that holds these motions, oldest first.
MotionRecord Correct(const std::vector<MotionRecord>& motions, std::int32_t width = 1000,
                     std::int32_t height = 1000) {
  Ring<MotionRecord> ring(motions.size());
  for (const MotionRecord& motion : motions) {
    ring.NextSlot() = motion;
    ring.Append();
  }
  return ComputeCorrection(ring, FindPathWeights(static_cast<std::int32_t>(motions.size()), false), width,
                           height);
}

TEST(PathSmoothing, KnowsEightWindowsWhoseWeightsCancel) {
  for (const bool gaussian : {false, true}) {
    for (const std::int32_t window : kWindows) {
      const PathWeights weights = FindPathWeights(window, gaussian);
      ASSERT_EQ(weights.entries.size(), static_cast<std::size_t>(window));
      EXPECT_EQ(std::accumulate(weights.entries.begin(), weights.entries.end(), 0), 0);
      EXPECT_EQ(weights.divisor, gaussian ? 128 : window);
    }
  }
  for (const std::int32_t window : {0, 1, 5, 31, 127, 256, -4})
    EXPECT_TRUE(FindPathWeights(window, false).entries.empty());
}

TEST(PathSmoothing, PullsAJoltBackAndKeepsASteadyPan) {
  EXPECT_EQ(Correct({{}, {}, {10, 0, 0}, {}}).dx, 5);
  EXPECT_EQ(Correct({{}, {}, {-3, 0, 0}, {}}).dx, -1) << "toward zero";
  EXPECT_EQ(Correct({{}, {0, 10, 2.0}, {}, {}}).dy, -5);
  EXPECT_EQ(Correct({{}, {0, 10, 2.0}, {}, {}}).theta, 1.0) << "the rotation is negated";
  for (const std::int32_t window : kWindows)
    EXPECT_EQ(Correct(std::vector<MotionRecord>(static_cast<std::size_t>(window), {7, -9, 0.0})).dx, 0);
  EXPECT_TRUE(std::signbit(Correct({{}, {}, {}, {}}).theta));
}

TEST(PathSmoothing, DropsFarCorrectionsOnTheirAxisOnlyAndWrapsItsSums) {
  const auto jolt = [](std::int32_t dx, std::int32_t dy, std::int32_t width = 100) {
    return Correct({{}, {}, {2 * dx, 2 * dy, 90.0}, {}}, width, 103);
  };
  EXPECT_EQ(jolt(59, 60).dx, 59);
  EXPECT_EQ(jolt(60, 60).dx, 0);
  EXPECT_EQ(jolt(60, 60).dy, 60);
  EXPECT_EQ(jolt(-60, -61).dx, 0);
  EXPECT_EQ(jolt(0, 61).dy, 0) << "the limit of 61.8 is truncated";
  EXPECT_EQ(jolt(60, 61).theta, -45.0);
  // 0.6 of this side is 2097154.8; as a single-precision product it is 2097155.
  EXPECT_EQ(jolt(2097154, 0, 3495258).dx, 2097154);
  EXPECT_EQ(jolt(2097155, 0, 3495258).dx, 0);
  // 2·2^30 wraps to -2^31.
  EXPECT_EQ(jolt(1 << 29, 0, 1 << 30).dx, -(1 << 29));
}

}  // namespace
