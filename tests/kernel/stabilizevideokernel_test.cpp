#include "kernel/stabilizevideokernel.h"

#include <atomic>
#include <cstdlib>
#include <gtest/gtest.h>
#include <limits>
#include <new>
#include <random>

#include "kernel/frame.h"
#include "support/guardedbuffer.h"
#include "support/params.h"
#include "support/scene.h"

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

TEST(Kernel, DeliversEachFrameHalfAWindowLater) {
  for (const std::int32_t window : {4, 8, 12, 16, 24, 32, 64, 128}) {
    CStabilizeVideoKernel kernel;
    KernelParams params = DefaultParams(8, 6);
    params.windowLength = window;
    ASSERT_TRUE(kernel.Initialize(params));
    for (int stream = 0; stream < 2; ++stream) {
      for (int number = 1; number <= 70; ++number) {
        Bytes frame = NumberedFrame(8, 6, number);
        ASSERT_EQ(Feed(kernel, frame), number > window / 2) << "window " << window << " frame " << number;
        ASSERT_EQ(frame[0], number > window / 2 ? number - window / 2 : number);
      }
      kernel.Reset();
      ASSERT_TRUE(kernel.IsInitialized());
    }
  }
}

TEST(Kernel, TakesTheNewestFrameAgainOnRequest) {
  CStabilizeVideoKernel kernel;
  KernelParams params = DefaultParams(8, 6);
  params.windowLength = 4;
  ASSERT_TRUE(kernel.Initialize(params));
  std::vector<int> delivered;
  const auto feed = [&](int number, bool repeat) {
    Bytes frame = NumberedFrame(8, 6, number);
    if (Feed(kernel, frame, repeat)) delivered.push_back(frame[0]);
  };
  feed(1, true);  // nothing to repeat yet: the buffer counts
  feed(98, true);
  feed(2, false);
  for (int i = 0; i < 4; ++i) feed(99, true);
  EXPECT_EQ(delivered, (std::vector<int>{1, 1, 2, 2, 2}));
}

TEST(Kernel, PassesFramesUnchangedForAnInvalidRegion) {
  for (const Rect roi :
       {Rect{0, 0, 0, 0},
        {10, 10, 10, 20},
        {0, 0, 9, 6},
        {0, 0, 8, 7},
        {-1, 0, 8, 6},
        {5, 0, 2, 6},
        {0, std::numeric_limits<std::int32_t>::min(), 8, std::numeric_limits<std::int32_t>::max()}}) {
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
  const auto accepts = [&](auto change) {
    KernelParams params = DefaultParams(9, 10);
    EXPECT_TRUE(kernel.Initialize(params));
    change(params);
    const bool accepted = kernel.Initialize(params);
    EXPECT_EQ(kernel.IsInitialized(), accepted);
    std::uint8_t pixel = 0;
    bool noOutput = false;
    EXPECT_EQ(accepted || kernel.ProcessFrame(&pixel, false, &noOutput), accepted);
    return accepted;
  };
  EXPECT_TRUE(accepts([](KernelParams& p) { p.cropMarginX = 3, p.cropMarginY = 4; }));
  EXPECT_FALSE(accepts([](KernelParams& p) { p.cropMarginX = 4; }));
  EXPECT_FALSE(accepts([](KernelParams& p) { p.cropMarginY = 5; }));
  EXPECT_FALSE(accepts([](KernelParams& p) { p.cropMarginX = -1; }));
  EXPECT_FALSE(accepts([](KernelParams& p) { p.cropMarginY = std::numeric_limits<std::int32_t>::min(); }));
  EXPECT_FALSE(accepts([](KernelParams& p) { p.clippingOption = 3; }));
  EXPECT_FALSE(accepts([](KernelParams& p) { p.windowLength = 6; }));
  EXPECT_FALSE(accepts([](KernelParams& p) { p = DefaultParams(1, 100); }));
  EXPECT_FALSE(accepts([](KernelParams& p) { p = DefaultParams(100, 1); }));
  EXPECT_FALSE(accepts([](KernelParams& p) { p = DefaultParams(40000, 40000); }))
      << "more than 2^31 - 1 bytes";
  EXPECT_FALSE(accepts([](KernelParams& p) { p = DefaultParams(26756, 26756); }))
      << "2^31 - 1 bytes and some more";
  EXPECT_FALSE(accepts([](KernelParams& p) { p = DefaultParams(1 << 24, 2); }));
  EXPECT_TRUE(accepts(
      [](KernelParams& p) { p.interpolation = 9, p.estimationCoefficients = 9, p.estimationQuality = 9; }));
}

TEST(Kernel, ReportsMissingMemoryAndGoesOn) {
  CStabilizeVideoKernel kernel;
  KernelParams params = DefaultParams(640, 480);
  params.estimationCoefficients = 1;
  g_largestAllowed = 100000;
  EXPECT_FALSE(kernel.Initialize(params));
  EXPECT_FALSE(kernel.Initialize(DefaultParams(16384, 16384)));
  EXPECT_FALSE(kernel.IsInitialized());
  g_largestAllowed = std::numeric_limits<std::size_t>::max();

  params.windowLength = 4;
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
      KernelParams params = DefaultParams(200, 190);
      params.windowLength = 4;
      params.clippingOption = clipping;
      params.estimationCoefficients = coefficients;
      ASSERT_TRUE(kernel.Initialize(params));
      std::vector<Bytes> frames;
      for (int i = 0; i < 8; ++i) frames.push_back(scene.Shoot(ShakyPose(i)));
      for (int i = 0; i < 3; ++i) Feed(kernel, frames[static_cast<std::size_t>(i)]);
      const int before = g_allocations;
      ASSERT_GT(before, 0) << "allocations are not counted";
      for (std::size_t i = 3; i < frames.size(); ++i) Feed(kernel, frames[i], i == 6);
      EXPECT_EQ(g_allocations, before);
    }
  }
}

TEST(Kernel, KeepsInsideTheCallersBytesWhateverTheParameters) {
  std::mt19937 random(8);
  const auto any = [&](std::int32_t from, std::int32_t to) {
    return from + static_cast<std::int32_t>(random() % static_cast<std::uint32_t>(to - from + 1));
  };
  CStabilizeVideoKernel kernel;
  int accepted = 0;
  for (int round = 0; round < 1500; ++round) {
    const std::int32_t width = any(1, 24), height = any(1, 24);
    KernelParams params = {.width = width,
                           .height = height,
                           .roi = {any(-2, width), any(-2, height), any(0, width + 2), any(0, height + 2)},
                           .estimationCoefficients = static_cast<std::uint32_t>(any(0, 2)),
                           .estimationQuality = static_cast<std::uint32_t>(any(0, 5)),
                           .gaussianWeights = any(0, 1),
                           .windowLength = 4,
                           .backgroundColor = {1, 2, 3},
                           .cropMarginX = any(-1, width / 2),
                           .cropMarginY = any(-1, height / 2),
                           .interpolation = static_cast<std::uint32_t>(any(0, 2)),
                           .clippingOption = static_cast<std::uint32_t>(any(0, 3))};
    if (!kernel.Initialize(params)) continue;
    ++accepted;
    for (int i = 0; i < 6; ++i) {
      const auto size = static_cast<std::size_t>(FrameGeometry(width, height).SizeBytes());
      GuardedBuffer buffer(RandomBytes(size, static_cast<std::uint32_t>(round * 10 + i)));
      bool noOutput = false;
      ASSERT_TRUE(kernel.ProcessFrame(buffer.Data(), i == 4, &noOutput)) << params;
      ASSERT_TRUE(buffer.GuardsIntact()) << params;
      // A block of the frame's own size: here the sanitizers see a read outside, too.
      Bytes exact = RandomBytes(size, static_cast<std::uint32_t>(i));
      ASSERT_TRUE(kernel.ProcessFrame(exact.data(), false, &noOutput)) << params;
    }
  }
  EXPECT_GT(accepted, 500);
}

TEST(Kernel, ForgetsTheStreamOnReset) {
  const Scene scene({200, 190}, 24);
  KernelParams params = DefaultParams(200, 190);
  params.windowLength = 8;
  params.estimationCoefficients = 1;
  CStabilizeVideoKernel fresh, used;
  ASSERT_TRUE(fresh.Initialize(params));
  ASSERT_TRUE(used.Initialize(params));
  for (int i = 20; i < 35; ++i) {
    Bytes frame = scene.Shoot(ShakyPose(i));
    Feed(used, frame);
  }
  EXPECT_NE(used.LatestMotion().dx, 0);
  const int before = g_allocations;
  used.Reset();
  Bytes first = scene.Shoot(ShakyPose(0));
  const int afterShot = g_allocations;
  EXPECT_FALSE(Feed(used, first));
  EXPECT_EQ(g_allocations, afterShot + 1) << "the frames' memory was freed";
  EXPECT_GE(afterShot, before);
  used.Reset();
  EXPECT_EQ(used.LatestMotion().dx, 0);
  EXPECT_EQ(used.LatestCorrection().theta, 0.0);
  for (int i = 0; i < 12; ++i) {
    Bytes one = scene.Shoot(ShakyPose(i)), other = one;
    ASSERT_EQ(Feed(fresh, one), Feed(used, other));
    ASSERT_EQ(one, other) << "frame " << i;
  }
}

TEST(Kernel, SteadiesAShakyCamera) {
  const Scene scene({320, 240}, 40);
  CStabilizeVideoKernel kernel;
  KernelParams params = DefaultParams(320, 240);
  params.estimationQuality = 0;
  params.estimationCoefficients = 1;
  params.windowLength = 16;
  ASSERT_TRUE(kernel.Initialize(params));
  // How far the picture jumps from frame to frame, before and after: the content moves against the camera.
  struct Jumps {
    double x = 0, y = 0, degrees = 0;
    void Add(const CameraPose& from, const CameraPose& to) {
      x += std::abs(to.x - from.x);
      y += std::abs(to.y - from.y);
      degrees += std::abs(to.degrees - from.degrees);
    }
  };
  Jumps before, after;
  CameraPose last, lastCorrected;
  for (int i = 0; i < 60; ++i) {
    Bytes frame = scene.Shoot(ShakyPose(i));
    if (!Feed(kernel, frame) || i < 24) continue;
    const CameraPose camera = ShakyPose(i - 8);
    const MotionRecord correction = kernel.LatestCorrection();
    const CameraPose place = {-camera.x, -camera.y, -camera.degrees};
    const CameraPose corrected = {place.x + correction.dx, place.y + correction.dy,
                                  place.degrees - correction.theta};
    if (i > 24) {
      before.Add(last, place);
      after.Add(lastCorrected, corrected);
    }
    last = place;
    lastCorrected = corrected;
  }
  EXPECT_LT(after.x, before.x / 3);
  EXPECT_LT(after.y, before.y / 3);
  EXPECT_LT(after.degrees, before.degrees / 3);
}

/// FNV-1a.
std::uint64_t Digest(const Bytes& bytes, std::uint64_t digest) {
  for (const std::uint8_t byte : bytes) digest = (digest ^ byte) * 0x100000001B3U;
  return digest;
}

/// Digest of all frames that come out of moving clips at several settings.
std::uint64_t DigestOfClips(const KernelOps& ops) {
  std::uint64_t digest = 0xCBF29CE484222325U;
  for (const auto& [width, height] : {std::pair{210, 190}, {420, 190}}) {
    const Scene scene({width, height}, 24);
    for (const std::uint32_t coefficients : {0U, 1U}) {
      for (const std::uint32_t clipping : {0U, 1U, 2U}) {
        CStabilizeVideoKernel kernel(ops);
        KernelParams params = DefaultParams(width, height);
        params.windowLength = 4;
        params.estimationCoefficients = coefficients;
        params.clippingOption = clipping;
        params.cropMarginX = 11;
        params.cropMarginY = 9;
        EXPECT_TRUE(kernel.Initialize(params));
        for (int i = 0; i < 8; ++i) {
          Bytes frame = scene.Shoot(ShakyPose(i));
          Feed(kernel, frame);
          digest = Digest(frame, digest);
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
