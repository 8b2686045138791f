#include "precise/run.h"

#include <gtest/gtest.h>

#include "scenes/scene.h"
#include "support/memory.h"

namespace precise {
namespace {

constexpr std::ptrdiff_t kPadding = 6;
constexpr std::uint8_t kPaddingMark = 0x5A;

}  // namespace

Outcome Stabilize(const PictureFormat& format, const Settings& settings, std::span<const PlanarFrame> frames,
                  const Way& way) {
  EXPECT_TRUE(AreUsable(format, settings));
  CStabilizer stabilizer(format, settings, way.cap, way.runner);
  const auto delay = static_cast<std::size_t>(stabilizer.DelayFrames());
  std::vector<PlanarBuffer> lent;
  Outcome run;
  const auto deliver = [&] {
    PlanarBuffer out(OutputFormat(format, settings), way.bottomUp, kPadding, kPaddingMark);
    const Picture view = out.View<std::uint8_t>();
    const std::int64_t before = AllocationCount();
    const bool isSkipped = std::ssize(run.frames) == way.skipped;
    const FrameReport report = isSkipped ? stabilizer.Skip() : stabilizer.Deliver(view);
    EXPECT_EQ(AllocationCount(), before);
    EXPECT_TRUE(out.IsPaddingIntact());
    EXPECT_EQ(report.frame, std::ssize(run.frames));
    lent[run.frames.size()] = PlanarBuffer(format);
    run.reports.push_back(report);
    run.frames.push_back(isSkipped ? PlanarFrame{} : out.Read());
  };
  for (const PlanarFrame& frame : frames) {
    EXPECT_FALSE(stabilizer.CanDeliver());
    lent.emplace_back(format, way.bottomUp, kPadding).Write(frame);
    const ConstPicture view = lent.back().View<const std::uint8_t>();
    const std::int64_t before = AllocationCount();
    stabilizer.Push(view);
    EXPECT_EQ(AllocationCount(), before);
    EXPECT_EQ(stabilizer.CanDeliver(), lent.size() > delay);
    if (stabilizer.CanDeliver()) deliver();
  }
  const std::int64_t before = AllocationCount();
  stabilizer.End();
  EXPECT_EQ(AllocationCount(), before);
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
