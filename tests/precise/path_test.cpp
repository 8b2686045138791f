#include <cmath>
#include <gtest/gtest.h>
#include <numbers>

#include "precise/margins.h"
#include "precise/run.h"

namespace precise {
namespace {

double Degrees(double radians) { return radians * 180 / std::numbers::pi; }

/// Where the content stands at a frame. Beyond its ends the path is continued by point reflection.
double Continued(std::span<const double> path, std::ptrdiff_t frame) {
  const std::ptrdiff_t last = std::ssize(path) - 1;
  if (frame < 0) return 2 * path[0] - Continued(path, -frame);
  if (frame > last) return 2 * path[static_cast<std::size_t>(last)] - Continued(path, 2 * last - frame);
  return path[static_cast<std::size_t>(frame)];
}

TEST(Path, IsAveragedWithTheWeightsGiven) {
  for (const std::size_t count : {13U, 3U, 2U}) {
    std::vector<double> path = {0, 3, 4, -2, -6, -1, 0, 5, 9, 12, 10, 11, 13};
    path.resize(count);
    std::vector<Take> takes;
    for (const double x : path) takes.push_back({.pose = MakePose(x, -x / 2)});
    const Settings settings = {.window = 8, .pathWeights = std::vector<double>(5, 0.3)};
    const Outcome run = Stabilize(kGrey, settings, ShootAll(kGrey, takes));
    for (std::size_t i = 0; i < count; ++i) {
      double mean = 0;
      for (std::ptrdiff_t near = -4; near <= 4; ++near)
        mean += Continued(path, static_cast<std::ptrdiff_t>(i) + near) / 9;
      EXPECT_NEAR(run.reports[i].correction.x, mean - path[i], 0.15) << "frame " << i << " of " << count;
      EXPECT_NEAR(run.reports[i].correction.y, (path[i] - mean) / 2, 0.15)
          << "frame " << i << " of " << count;
    }
  }
}

/// Poses are averaged relative to the delivered frame, so it does not matter what the camera turns about.
TEST(Path, IsAveragedAsTheDeliveredFrameSeesIt) {
  const double degrees[] = {0, 3, -2, 4, 1};
  const Similarity pivot = MakePose(60, 40);
  std::vector<Take> takes;
  for (const double roll : degrees)
    takes.push_back({.pose = Compose(pivot, Compose(MakePose(0, 0, roll), Inverse(pivot)))});
  const Settings settings = {.window = 4, .pathWeights = {3, 2, 1}};
  const FrameReport report = Stabilize(kGrey, settings, ShootAll(kGrey, takes)).reports[2];
  Complex mean;
  const double weights[] = {1, 2, 3, 2, 1};
  for (std::size_t i = 0; i < takes.size(); ++i)
    mean = mean + weights[i] / 9 * Compose(takes[i].pose, Inverse(takes[2].pose)).shift;
  EXPECT_NEAR(report.correction.x, mean.re, 0.1);
  EXPECT_NEAR(report.correction.y, mean.im, 0.1);
  EXPECT_NEAR(Degrees(report.correction.roll), (6.0 - 6 + 8 + 1) / 9 + 2, 0.02);
}

/// A camera starts to pan, faster than the margins let the path lag behind.
TEST(Path, BendsGraduallyInsideTheMargins) {
  std::vector<Take> takes;
  for (int i = 0; i < 44; ++i) takes.push_back({.pose = MakePose(i < 22 ? 0 : 7.0 * (i - 22), 0)});
  const Settings settings = {.window = 16, .marginX = 8, .marginY = 6};
  const Outcome run = Stabilize(kGrey, settings, ShootAll(kGrey, takes));
  double largest = 0;
  const auto position = [&](std::size_t i) { return takes[i].pose.shift.re + run.reports[i].correction.x; };
  for (std::size_t i = 1; i + 1 < takes.size(); ++i) {
    EXPECT_NEAR(position(i + 1) - 2 * position(i) + position(i - 1), 0, 1.8) << "frame " << i;
    largest = std::max(largest, std::abs(run.reports[i].correction.x));
  }
  // The path uses most of the margins.
  EXPECT_GT(largest, 4);
}

TEST(Path, NeverReachesFurtherThanAFrameAllows) {
  const std::vector<double> weights = {3, 2, 1};
  for (std::size_t low = 0; low < 9; ++low) {
    std::vector<double> reaches(9, CLadder::kHighest);
    reaches[low] = 1;
    for (std::size_t i = 0; i < reaches.size(); ++i) {
      const double reach = SmoothReach(reaches, static_cast<std::int64_t>(i), weights);
      const std::size_t distance = i < low ? low - i : i - low;
      EXPECT_LE(reach, reaches[i]);
      EXPECT_EQ(reach < CLadder::kHighest, distance <= 4) << "frame " << i << ", lowest at " << low;
    }
  }
}

/// Between two corrections that fit there may be mixtures that do not.
TEST(Path, FitsAtEveryPosition) {
  const HalfSizes sizes = {{60, 40}, {50, 30}};
  for (double roll = -16; roll <= 16; roll += 4)
    for (double x = -15; x <= 15; x += 3) {
      CLadder ladder;
      ladder.SetLast(MakePose(x, 5, roll));
      EXPECT_TRUE(Fits(ladder.FittingAt(CLadder::kHighest - 0.5, sizes), sizes)) << x << ", " << roll;
    }
}

TEST(Path, LaysEveryFrameOnTheFirstOfItsShotOnATripod) {
  for (const bool correctRoll : {true, false}) {
    std::vector<Take> takes = ShakyTakes("aaaaaaaaaaaaaaaaaaaaWaaaaabbbbbc");
    // Most frames stand further from the first one than a motion is found without a guess.
    for (std::size_t i = 0; i < takes.size(); ++i) {
      takes[i].noise = 8;
      const double share = std::min(static_cast<double>(i) / 6, 1.0);
      takes[i].pose = Compose(MakePose(28 * share, 0, 16 * share), takes[i].pose);
    }
    if (!correctRoll)
      for (Take& take : takes) take.pose.turn = {1, 0};
    const Settings settings = {.window = 4, .correctRoll = correctRoll, .tripod = true};
    const Outcome run = Stabilize(kGrey, settings, ShootAll(kGrey, takes));
    for (std::size_t i = 0; i < takes.size(); ++i) {
      if (takes[i].scene == 0) continue;
      const std::size_t begin = i < 26 ? 0 : i < 31 ? 26 : 31;
      const Similarity expected = Compose(takes[begin].pose, Inverse(takes[i].pose));
      const Movement& correction = run.reports[i].correction;
      EXPECT_EQ(run.reports[i].shot, i < 26 ? 0 : i < 31 ? 1 : 2);
      EXPECT_NEAR(correction.x, expected.shift.re, 0.1) << "frame " << i;
      EXPECT_NEAR(correction.y, expected.shift.im, 0.1) << "frame " << i;
      EXPECT_NEAR(Degrees(correction.roll - Angle(expected.turn)), 0, correctRoll ? 0.08 : 0)
          << "frame " << i;
    }
  }
}

}  // namespace
}  // namespace precise
