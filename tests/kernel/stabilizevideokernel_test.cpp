#include "kernel/stabilizevideokernel.h"

#include <array>
#include <atomic>
#include <cstdlib>
#include <gtest/gtest.h>
#include <limits>
#include <new>

#include "kernel/frame.h"
#include "scenes/scene.h"
#include "support/params.h"

namespace {

std::atomic<int> g_allocations = 0;
std::atomic<std::size_t> g_largestAllowed = std::numeric_limits<std::size_t>::max();

void* Allocate(std::size_t size) {
  ++g_allocations;
  void* const memory = size <= g_largestAllowed ? std::malloc(size) : nullptr;
  if (!memory) throw std::bad_alloc();
  return memory;
}

}  // namespace

void* operator new(std::size_t size) { return Allocate(size); }
void* operator new[](std::size_t size) { return Allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

using Bytes = std::vector<std::uint8_t>;

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
bool Feed(CStabilizeVideoKernel& kernel, Bytes& frame, bool repeatPrevious = false) {
  bool noOutput = false;
  EXPECT_TRUE(kernel.ProcessFrame(frame.data(), repeatPrevious, &noOutput));
  return !noOutput;
}

TEST(Kernel, PassesFramesUnchangedForAnInvalidRegion) {
  constexpr std::int32_t kMin = std::numeric_limits<std::int32_t>::min(),
                         kMax = std::numeric_limits<std::int32_t>::max();
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
  CStabilizeVideoKernel kernel;
  const auto accepts = [&](const KernelParams& params) {
    EXPECT_TRUE(kernel.Initialize(DefaultParams(9, 10)));
    const bool accepted = kernel.Initialize(params);
    EXPECT_EQ(kernel.IsInitialized(), accepted);
    std::uint8_t pixel = 0;
    bool noOutput = false;
    EXPECT_EQ(accepted || kernel.ProcessFrame(&pixel, false, &noOutput), accepted);
    return accepted;
  };
  const auto acceptsMargins = [&](std::int32_t x, std::int32_t y) {
    KernelParams params = DefaultParams(9, 10);
    params.cropMarginX = x;
    params.cropMarginY = y;
    return accepts(params);
  };
  EXPECT_TRUE(acceptsMargins(3, 4));
  EXPECT_FALSE(acceptsMargins(4, 4));
  EXPECT_FALSE(acceptsMargins(3, 5));
  EXPECT_FALSE(acceptsMargins(-1, 0));
  EXPECT_FALSE(acceptsMargins(0, std::numeric_limits<std::int32_t>::min()));
  // One pixel a side, and more than 2^31 - 1 bytes or 2^23 pixels a side.
  for (const auto& [width, height] :
       {std::pair{1, 100}, {100, 1}, {40000, 40000}, {26756, 26756}, {1 << 24, 2}})
    EXPECT_FALSE(accepts(DefaultParams(width, height))) << width << "x" << height;
  KernelParams params = DefaultParams(9, 10);
  params.interpolation = params.estimationCoefficients = params.estimationQuality = 9;
  EXPECT_TRUE(accepts(params));
  params.windowLength = 6;
  EXPECT_FALSE(accepts(params));
  params.windowLength = 4;
  params.clippingOption = 3;
  EXPECT_FALSE(accepts(params));
}

TEST(Kernel, ReportsMissingMemoryAndGoesOn) {
  CStabilizeVideoKernel kernel;
  const KernelParams params = ShortParams(640, 480, 1);
  g_largestAllowed = 100000;
  EXPECT_FALSE(kernel.Initialize(params));
  EXPECT_FALSE(kernel.Initialize(DefaultParams(16384, 16384)));
  EXPECT_FALSE(kernel.IsInitialized());
  g_largestAllowed = std::numeric_limits<std::size_t>::max();

  ASSERT_TRUE(kernel.Initialize(params));
  Bytes frame = NumberedFrame(640, 480, 1);
  bool noOutput = false;
  g_largestAllowed = frame.size() - 1;
  EXPECT_FALSE(kernel.ProcessFrame(frame.data(), false, &noOutput));
  EXPECT_TRUE(noOutput);
  g_largestAllowed = std::numeric_limits<std::size_t>::max();
  for (int number = 1; number <= 3; ++number) {
    frame = NumberedFrame(640, 480, number);
    EXPECT_EQ(Feed(kernel, frame), number == 3) << "the frame that found no memory does not count";
  }
  EXPECT_EQ(frame[0], 1);
}

TEST(Kernel, AllocatesNothingOnceTheDelayLineIsFull) {
  const Scene scene({200, 190}, 24);
  for (const std::uint32_t clipping : {0U, 1U, 2U}) {
    for (const std::uint32_t coefficients : {0U, 1U}) {
      CStabilizeVideoKernel kernel;
      KernelParams params = ShortParams(200, 190, coefficients);
      params.clippingOption = clipping;
      ASSERT_TRUE(kernel.Initialize(params));
      int before = 0;
      for (int i = 0; i < 8; ++i) {
        Bytes frame = scene.Shoot(ShakyPose(i));
        before = g_allocations;
        ASSERT_GT(before, 0) << "allocations are not counted";
        Feed(kernel, frame, i == 6);
        EXPECT_EQ(g_allocations == before, i >= 3) << "frame " << i;
      }
    }
  }
}

TEST(Kernel, ForgetsTheStreamOnReset) {
  const Scene scene({200, 190}, 24);
  CStabilizeVideoKernel fresh, used;
  ASSERT_TRUE(fresh.Initialize(ShortParams(200, 190, 1)));
  ASSERT_TRUE(used.Initialize(ShortParams(200, 190, 1)));
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
    const int before = g_allocations;
    const bool delivers = Feed(used, other);
    EXPECT_EQ(g_allocations - before, i < 3 ? 1 : 0) << "the frames' memory was freed";
    ASSERT_EQ(Feed(fresh, one), delivers);
    ASSERT_EQ(one, other) << "frame " << i;
  }
}

/// FNV-1a over all frames that come out of moving clips at several settings.
std::uint64_t DigestOfClips(const KernelOps& ops) {
  std::uint64_t digest = 0xCBF29CE484222325U;
  for (const auto& [width, height] : {std::pair{210, 190}, {420, 190}}) {
    const Scene scene({width, height}, 24);
    for (const std::uint32_t coefficients : {0U, 1U}) {
      for (const std::uint32_t clipping : {0U, 1U, 2U}) {
        CStabilizeVideoKernel kernel(ops);
        KernelParams params = ShortParams(width, height, coefficients);
        params.clippingOption = clipping;
        params.cropMarginX = 11;
        params.cropMarginY = 9;
        EXPECT_TRUE(kernel.Initialize(params));
        for (int i = 0; i < 8; ++i) {
          Bytes frame = scene.Shoot(ShakyPose(i));
          Feed(kernel, frame);
          for (const std::uint8_t byte : frame) digest = (digest ^ byte) * 0x100000001B3U;
        }
      }
    }
  }
  return digest;
}

TEST(Kernel, GivesTheSameBytesOnEveryMachine) {
  for (const KernelOps* const ops : AvailableOps())
    EXPECT_EQ(DigestOfClips(*ops), 0x206867F0A0262457U) << ops->name;
}

}  // namespace
