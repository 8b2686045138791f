#include <cmath>
#include <functional>
#include <gtest/gtest.h>
#include <numbers>

#include "precise/run.h"

namespace precise {
namespace {

constexpr PictureFormat kFormat = {.width = 240, .height = 180};

struct MotionCase {
  const char* name;
  Similarity motion = MakePose(3.37, -2.61, 0.7);
  Take take = {};  ///< of both frames; `change` alters the later one
  std::function<void(Take& later)> change = [](Take&) {};
  double aspect = 1;
  std::optional<Rect> region = {};
  double boundPixels = 0.05, boundDegrees = 0.005;
};

const Similarity kOtherMotion = MakePose(-7, 5, -2);

const std::vector<MotionCase> kMotionCases = {
    {.name = "plain"},
    {.name = "a fraction of a pixel", .motion = MakePose(0.25, 0.4)},
    {.name = "noise", .take = {.noise = 10}, .boundDegrees = 0.02},
    {.name = "brighter", .change = [](Take& later) { later.gain = 1.3, later.offset = -20; }},
    {.name = "half as bright", .change = [](Take& later) { later.gain = 0.5; }},
    {.name = "fog", .take = {.contrast = 0.18}},
    {.name = "foreground over a third",
     .take = {.foreground = 0.33},
     .change = [](Take& later) { later.foregroundPose = kOtherMotion; },
     .boundPixels = 0.1,
     .boundDegrees = 0.02},
    {.name = "15 % to the right", .motion = MakePose(36, -3)},
    {.name = "15 % to the left and down", .motion = MakePose(-36, 20)},
    {.name = "roll", .motion = MakePose(0, 0, -5)},
    {.name = "zoom", .motion = MakePose(1.3, 2.2, 0.5, 1.04)},
    {.name = "wide pixels", .motion = MakePose(4, -2, 3), .aspect = 16.0 / 11},
    {.name = "narrow pixels", .motion = MakePose(2, 3, -3), .aspect = 0.7},
    {.name = "very wide pixels", .motion = MakePose(20, -4, 2, 1.02), .aspect = 4},
    {.name = "very narrow pixels", .motion = MakePose(5, 6, -2, 1.02), .aspect = 0.25},
    {.name = "far behind a still foreground",
     .motion = MakePose(36, -3),
     .take = {.foreground = 0.3},
     .boundPixels = 0.1,
     .boundDegrees = 0.02},
    {.name = "far to the left behind a still foreground",
     .motion = MakePose(-40, 3),
     .take = {.foreground = 0.25},
     .boundPixels = 0.1,
     .boundDegrees = 0.02},
    {.name = "region",
     .take = {.foreground = 0.6},
     .change = [](Take& later) { later.foregroundPose = kOtherMotion; },
     .region = Rect{155, 0, 240, 170}},
};

FrameReport Measured(const MotionCase& test, std::uint32_t scene) {
  PictureFormat format = kFormat;
  format.pixelAspect = test.aspect;
  Take earlier = test.take;
  earlier.scene = scene;
  earlier.pose = MakePose(1.7, -0.6, -0.4);
  Take later = earlier;
  later.pose = Compose(test.motion, earlier.pose);
  later.noiseSeed = earlier.noiseSeed + 1;
  test.change(later);
  return Stabilize(format, {.window = 2, .estimateFrom = test.region},
                   std::array{Shoot(format, earlier), Shoot(format, later)})
      .reports[1];
}

TEST(Motion, IsThatOfTheCamera) {
  for (const MotionCase& test : kMotionCases) {
    for (const std::uint32_t scene : {1U, 2U, 3U}) {
      SCOPED_TRACE(std::string(test.name) + ", scene " + std::to_string(scene));
      const FrameReport report = Measured(test, scene);
      EXPECT_EQ(report.shot, 0);
      EXPECT_NEAR(report.motion.x, test.motion.shift.re / test.aspect, test.boundPixels);
      EXPECT_NEAR(report.motion.y, test.motion.shift.im, test.boundPixels);
      const double radians = std::atan2(test.motion.turn.im, test.motion.turn.re);
      EXPECT_NEAR((report.motion.roll - radians) * 180 / std::numbers::pi, 0, test.boundDegrees);
      EXPECT_NEAR(report.zoom, Length(test.motion.turn), 0.0005);
    }
  }
}

TEST(Motion, TellsAnglesAsTheArcTangentDoes) {
  for (int i = -720; i <= 720; ++i)
    for (const double length : {1e-9, 1.0, 3e5}) {
      const Complex direction = {length * std::cos(i * 0.00436), length * std::sin(i * 0.00436)};
      EXPECT_NEAR(Angle(direction), std::atan2(direction.im, direction.re), 1e-15) << i;
    }
  EXPECT_EQ(Angle({0, 0}), 0);
}

TEST(Motion, IsNothingWithoutTextureAndNothingThatNoCameraDoes) {
  const auto expectNone = [](const MotionCase& test, std::uint32_t scene) {
    const FrameReport report = Measured(test, scene);
    EXPECT_EQ(report.motion.x, 0) << test.name;
    EXPECT_EQ(report.motion.y, 0) << test.name;
    EXPECT_EQ(report.motion.roll, 0) << test.name;
    EXPECT_EQ(report.shot, 0) << test.name;
  };
  for (const double noise : {0.0, 2.0, 5.0, 10.0}) expectNone({.name = "flat", .take = {.noise = noise}}, 0);
  for (const double roll : {-21, 21, 24})
    expectNone({.name = "turned too far", .motion = MakePose(0, 0, roll)}, 1);
}

}  // namespace
}  // namespace precise
