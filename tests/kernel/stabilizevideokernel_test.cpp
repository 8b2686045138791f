#include "kernel/stabilizevideokernel.h"

#include <gtest/gtest.h>
#include <limits>

#include "kernel/frame.h"
#include "scenes/scene.h"
#include "support/memory.h"
#include "support/params.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::int32_t kMin = std::numeric_limits<std::int32_t>::min(),
                       kMax = std::numeric_limits<std::int32_t>::max();

/// The default settings at the shortest delay.
KernelParams ShortParams(std::int32_t width, std::int32_t height, std::uint32_t coefficients = 0) {
  KernelParams params = DefaultParams(width, height);
  params.windowLength = 4;
  params.estimationCoefficients = coefficients;
  return params;
}

/// A frame whose picture tells its number.
Bytes NumberedFrame(std::int32_t width, std::int32_t height, int number) {
  return Bytes(static_cast<std::size_t>(FrameGeometry(width, height).SizeBytes()),
               static_cast<std::uint8_t>(number));
}

/// Feeds one frame; returns whether a frame came back, in `frame`.
bool Feed(CStabilizeVideoKernel& kernel, Bytes& frame) {
  bool noOutput = false;
  EXPECT_TRUE(kernel.ProcessFrame(frame.data(), false, &noOutput));
  return !noOutput;
}

TEST(Kernel, PassesFramesUnchangedForAnInvalidRegion) {
  for (const Rect roi : {Rect{0, 0, 0, 0},
                         {10, 10, 10, 20},
                         {0, 0, 9, 6},
                         {0, 0, 8, 7},
                         {-1, 0, 8, 6},
                         {0, -1, 8, 6},
                         {5, 0, 2, 6},
                         {0, kMin, 8, kMax}}) {
    CStabilizeVideoKernel kernel;
    KernelParams params = DefaultParams(8, 6);
    params.roi = roi;
    params.clippingOption = 77;  // not even looked at
    ASSERT_TRUE(kernel.Initialize(params));
    EXPECT_TRUE(kernel.IsInitialized());
    for (const bool preset : {false, true}) {
      Bytes frame = NumberedFrame(8, 6, 42);
      bool noOutput = preset;
      EXPECT_TRUE(kernel.ProcessFrame(frame.data(), false, &noOutput));
      EXPECT_EQ(noOutput, preset);
      EXPECT_EQ(frame, NumberedFrame(8, 6, 42));
    }
    kernel.Reset();
    kernel.Release();
    EXPECT_FALSE(kernel.IsInitialized());
    bool noOutput = false;
    EXPECT_TRUE(kernel.ProcessFrame(nullptr, false, &noOutput)) << "a release leaves the pass-through on";
    ASSERT_TRUE(kernel.Initialize(DefaultParams(8, 6)));
    Bytes frame = NumberedFrame(8, 6, 42);
    EXPECT_FALSE(Feed(kernel, frame)) << "a valid region ends the pass-through";
  }
}

TEST(Kernel, RefusesWhatItCannotDo) {
  struct Case {
    bool isAccepted;
    std::int32_t width = 9, height = 10, marginX = 0, marginY = 0, window = 4;
    std::uint32_t clipping = 0;
  };
  CStabilizeVideoKernel kernel;
  // One pixel a side, and more than 2^31 - 1 bytes or 2^23 pixels a side, are refused.
  for (const Case& test : {Case{true, 9, 10, 3, 4},
                           {false, 9, 10, 4, 4},
                           {false, 9, 10, 3, 5},
                           {false, 9, 10, -1, 0},
                           {false, 9, 10, 0, kMin},
                           {false, 1, 100},
                           {false, 100, 1},
                           {false, 40000, 40000},
                           {false, 26756, 26756},
                           {false, 1 << 24, 2},
                           {true, 9, 10, 0, 0, 4, 2},
                           {false, 9, 10, 0, 0, 6},
                           {false, 9, 10, 0, 0, 4, 3}}) {
    EXPECT_TRUE(kernel.Initialize(DefaultParams(9, 10)));
    KernelParams params = DefaultParams(test.width, test.height);
    params.cropMarginX = test.marginX;
    params.cropMarginY = test.marginY;
    params.windowLength = test.window;
    params.clippingOption = test.clipping;
    params.interpolation = params.estimationCoefficients = params.estimationQuality = 9;
    EXPECT_EQ(kernel.Initialize(params), test.isAccepted) << test.width << ", " << test.marginX;
    EXPECT_EQ(kernel.IsInitialized(), test.isAccepted);
    std::uint8_t pixel = 0;
    bool noOutput = false;
    EXPECT_TRUE(test.isAccepted || !kernel.ProcessFrame(&pixel, false, &noOutput));
  }
}

TEST(Kernel, ReportsMissingMemoryAndGoesOn) {
  CStabilizeVideoKernel kernel;
  const KernelParams params = ShortParams(640, 480, 1);
  {
    const LimitedMemory limited(100000);
    EXPECT_FALSE(kernel.Initialize(params));
    EXPECT_FALSE(kernel.Initialize(DefaultParams(16384, 16384)));
    EXPECT_FALSE(kernel.IsInitialized());
  }
  ASSERT_TRUE(kernel.Initialize(params));
  Bytes frame = NumberedFrame(640, 480, 1);
  bool noOutput = false;
  {
    const LimitedMemory limited(static_cast<std::int64_t>(frame.size()) - 1);
    EXPECT_FALSE(kernel.ProcessFrame(frame.data(), false, &noOutput));
    EXPECT_TRUE(noOutput);
  }
  for (int number = 1; number <= 3; ++number) {
    frame = NumberedFrame(640, 480, number);
    EXPECT_EQ(Feed(kernel, frame), number == 3) << "the frame that found no memory does not count";
  }
  EXPECT_EQ(frame[0], 1);
}

/// Once the kernel is set up, it allocates only the frames of the delay line, one a call.
TEST(Kernel, ForgetsTheStreamOnResetAndAllocatesOneFrameACallUntilTheDelayLineIsFull) {
  const Scene scene({200, 190}, 24);
  for (const std::uint32_t clipping : {0U, 1U, 2U}) {
    CStabilizeVideoKernel fresh, used;
    KernelParams params = ShortParams(200, 190, 1);
    params.clippingOption = clipping;
    ASSERT_TRUE(fresh.Initialize(params) && used.Initialize(params));
    for (int i = 20; i < 29; ++i) {
      Bytes frame = scene.Shoot(ShakyPose(i));
      Feed(used, frame);
    }
    EXPECT_NE(used.LatestMotion().dx, 0);
    used.Reset();
    EXPECT_EQ(used.LatestMotion().dx, 0);
    EXPECT_EQ(used.LatestCorrection().theta, 0.0);
    for (int i = 0; i < 8; ++i) {
      Bytes one = scene.Shoot(ShakyPose(i)), other = one;
      const std::int64_t before = AllocationCount();
      const bool delivers = Feed(used, other);
      EXPECT_EQ(AllocationCount() - before, i < 3 ? 1 : 0) << "frame " << i;
      ASSERT_EQ(Feed(fresh, one), delivers);
      ASSERT_EQ(one, other) << "frame " << i;
    }
  }
}

/// FNV-1a over all frames that come out of moving clips at several settings.
TEST(Kernel, GivesTheSameBytesOnEveryMachine) {
  for (const KernelOps* const ops : AvailableOps()) {
    std::uint64_t digest = 0xCBF29CE484222325U;
    for (const auto& [width, height] : {std::pair{210, 190}, {420, 190}}) {
      const Scene scene({width, height}, 24);
      for (const std::uint32_t setting : {0U, 1U, 2U, 3U, 4U, 5U}) {
        CStabilizeVideoKernel kernel(*ops);
        KernelParams params = ShortParams(width, height, setting / 3);
        params.clippingOption = setting % 3;
        params.cropMarginX = 11;
        params.cropMarginY = 9;
        ASSERT_TRUE(kernel.Initialize(params));
        for (int i = 0; i < 8; ++i) {
          Bytes frame = scene.Shoot(ShakyPose(i));
          Feed(kernel, frame);
          for (const std::uint8_t byte : frame) digest = (digest ^ byte) * 0x100000001B3U;
        }
      }
    }
    EXPECT_EQ(digest, 0x206867F0A0262457U) << ops->name;
  }
}

}  // namespace
