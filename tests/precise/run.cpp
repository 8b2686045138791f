#include "precise/run.h"

#include <gtest/gtest.h>
#include <utility>

#include "scenes/pictureplanes.h"
#include "scenes/scene.h"

namespace precise {
namespace {

/// Memory that shows what is written beside the samples.
PicturePlanes GuardedPlanes(const PictureFormat& format, const Way& way) {
  return {format, {.isBottomUp = way.bottomUp, .padding = 6, .guard = 4096, .fill = 0x5A}};
}

}  // namespace

Outcome Stabilize(const PictureFormat& format, const Settings& settings, std::span<const PlanarFrame> frames,
                  const Way& way) {
  EXPECT_TRUE(AreUsable(format, settings));
  CStabilizer stabilizer(format, settings, way.cap, way.runner);
  const auto delay = static_cast<std::size_t>(stabilizer.DelayFrames());
  std::vector<PicturePlanes> lent;
  Outcome run;
  const auto deliver = [&] {
    PicturePlanes out = GuardedPlanes(OutputFormat(format, settings), way);
    run.reports.push_back(stabilizer.Deliver(out.Planes()));
    EXPECT_TRUE(out.IsRestUntouched());
    EXPECT_EQ(run.reports.back().frame, static_cast<std::int64_t>(run.frames.size()));
    lent[run.frames.size()] = GuardedPlanes(format, way);
    run.frames.push_back(out.Read());
  };
  for (const PlanarFrame& frame : frames) {
    EXPECT_FALSE(stabilizer.CanDeliver());
    lent.push_back(GuardedPlanes(format, way));
    lent.back().Write(frame);
    stabilizer.Push(std::as_const(lent.back()).Planes());
    EXPECT_EQ(stabilizer.CanDeliver(), lent.size() > delay);
    if (stabilizer.CanDeliver()) deliver();
  }
  stabilizer.End();
  while (stabilizer.CanDeliver() && run.frames.size() < frames.size()) deliver();
  EXPECT_FALSE(stabilizer.CanDeliver());
  EXPECT_EQ(run.frames.size(), frames.size());
  return run;
}

void ExpectSame(const Outcome& expected, std::size_t expectedFirst, const Outcome& actual,
                std::size_t actualFirst, std::size_t count) {
  const auto numbers = [](const FrameReport& report) {
    return std::array{report.motion.x,     report.motion.y,     report.motion.roll,    report.zoom,
                      report.correction.x, report.correction.y, report.correction.roll};
  };
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t one = expectedFirst + i, other = actualFirst + i;
    EXPECT_EQ(numbers(expected.reports[one]), numbers(actual.reports[other])) << "frame " << one;
    EXPECT_TRUE(expected.frames[one] == actual.frames[other]) << "frame " << one;
  }
}

std::vector<Take> ShakyTakes(std::string_view scenes, double amplitude) {
  std::vector<Take> takes;
  for (const char letter : scenes) {
    const CameraPose pose = ShakyPose(static_cast<int>(takes.size()));
    Take take = {.pose = MakePose(amplitude / 4 * pose.x, amplitude / 4 * pose.y, pose.degrees),
                 .scene = static_cast<std::uint32_t>(letter),
                 .noiseSeed = static_cast<std::uint32_t>(takes.size())};
    if (letter == 'W' || letter == 'K') take.scene = 0, take.offset = letter == 'W' ? 127 : -128;
    takes.push_back(take);
  }
  return takes;
}

std::vector<PlanarFrame> ShootAll(const PictureFormat& format, std::span<const Take> takes) {
  std::vector<PlanarFrame> frames;
  for (const Take& take : takes) frames.push_back(Shoot(format, take));
  return frames;
}

}  // namespace precise
