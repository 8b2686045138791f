#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <random>

#include "kernel/sinecosine.h"
#include "kernel/stabilizevideokernel.h"
#include "referencemodel.h"
#include "scenes/scene.h"
#include "support/guardedbuffer.h"
#include "support/params.h"

namespace {

reference::ReferenceModel MakeReference() {
  return reference::ReferenceModel([](double radians, double* sine, double* cosine) {
    const SineCosine result = ComputeSineCosine(radians);
    *sine = result.sine;
    *cosine = result.cosine;
  });
}

void ExpectSameMotion(const MotionRecord& actual, const MotionRecord& expected) {
  EXPECT_EQ(actual.dx, expected.dx);
  EXPECT_EQ(actual.dy, expected.dy);
  EXPECT_EQ(actual.theta, expected.theta);
}

/// Hands one frame to a kernel and compares every byte and record with the literal model's. A block of the
/// frame's own size lets sanitizers see a read outside; guards show what is written there without them.
void ExpectSameFrame(CStabilizeVideoKernel& kernel, const reference::ReferenceModel& model,
                     const std::vector<std::uint8_t>& input, bool repeat, bool isGuarded,
                     const std::vector<std::uint8_t>& expected, bool expectedNoOutput) {
  GuardedBuffer guarded(input);
  std::vector<std::uint8_t> content = input;
  bool noOutput = false;
  ASSERT_TRUE(kernel.ProcessFrame(isGuarded ? guarded.Data() : content.data(), repeat, &noOutput));
  ASSERT_EQ(noOutput, expectedNoOutput);
  ExpectSameMotion(kernel.LatestMotion(), model.LatestMotion());
  ExpectSameMotion(kernel.LatestCorrection(), model.LatestCorrection());
  ASSERT_TRUE(guarded.GuardsIntact());
  if (isGuarded) content = guarded.Content();
  const auto difference = std::mismatch(content.begin(), content.end(), expected.begin()).first;
  ASSERT_EQ(difference, content.end()) << "first different byte " << difference - content.begin();
}

/// Runs the kernel with each table of loops, and the literal model, over the same frames.
template <class FrameSource>
void ExpectSameRun(const KernelParams& params, int frames, const FrameSource& frameAt) {
  SCOPED_TRACE(::testing::Message() << params);
  reference::ReferenceModel model = MakeReference();
  const bool accepted = model.Initialize(params);
  std::vector<std::unique_ptr<CStabilizeVideoKernel>> kernels;
  for (const KernelOps* const ops : AvailableOps()) {
    kernels.push_back(std::make_unique<CStabilizeVideoKernel>(*ops));
    ASSERT_EQ(kernels.back()->Initialize(params), accepted);
  }
  if (!accepted) return;
  for (int i = 0; i < frames; ++i) {
    const std::vector<std::uint8_t> input = frameAt(i);
    std::vector<std::uint8_t> expected = input;
    bool expectedNoOutput = false;
    const bool repeat = i % 5 == 0;
    ASSERT_TRUE(model.ProcessFrame(expected.data(), repeat, &expectedNoOutput));
    for (std::size_t level = 0; level < kernels.size(); ++level) {
      SCOPED_TRACE(::testing::Message() << AvailableOps()[level]->name << " frame " << i);
      ExpectSameFrame(*kernels[level], model, input, repeat, (static_cast<std::size_t>(i) + level) % 2 == 0,
                      expected, expectedNoOutput);
      if (::testing::Test::HasFailure()) return;
    }
  }
}

template <class Value>
Value OneOf(std::mt19937& random, std::initializer_list<Value> values) {
  return values.begin()[random() % values.size()];
}

std::int32_t Below(std::mt19937& random, std::int32_t limit) {
  return static_cast<std::int32_t>(random() % static_cast<std::uint32_t>(std::max(limit, 1)));
}

/// Any region inside the frame, most often the whole of it.
Rect RandomRegion(std::mt19937& random, std::int32_t width, std::int32_t height) {
  if (random() % 3 != 0) return {0, 0, width, height};
  const std::int32_t left = Below(random, width), top = Below(random, height);
  return {left, top, left + 1 + Below(random, width - left), top + 1 + Below(random, height - top)};
}

KernelParams RandomParams(std::mt19937& random, std::int32_t width, std::int32_t height) {
  KernelParams params = DefaultParams(width, height);
  params.roi = RandomRegion(random, width, height);
  params.estimationCoefficients = OneOf(random, {0U, 1U, 1U, 0U, 2U});
  params.estimationQuality = OneOf(random, {0U, 1U, 2U, 3U, 4U});
  params.gaussianWeights = OneOf(random, {0, 1, -1});
  params.windowLength = OneOf(random, {4, 4, 8, 12});
  params.backgroundColor = {17, 130, 243};
  params.cropMarginX = OneOf(random, {0, Below(random, width / 2), 3});
  params.cropMarginY = OneOf(random, {0, Below(random, height / 2), 2});
  params.interpolation = OneOf(random, {0U, 1U, 1U, 9U});
  params.clippingOption = OneOf(random, {0U, 1U, 2U});
  return params;
}

TEST(KernelEqualsItsLiteralModel, OnMovingFramesOfAnySettings) {
  std::mt19937 random(11);
  for (int round = 0; round < 60; ++round) {
    const std::int32_t width =
        OneOf(random, {2 + Below(random, 12), 81 + Below(random, 120), 171 + Below(random, 60)});
    const std::int32_t height =
        OneOf(random, {2 + Below(random, 12), 75 + Below(random, 110), 171 + Below(random, 60)});
    const Scene scene({width, height}, 24, static_cast<std::uint32_t>(round));
    ExpectSameRun(RandomParams(random, width, height), 9, [&](int i) { return scene.Shoot(ShakyPose(i)); });
    if (HasFailure()) return;
  }
}

/// Sides beyond a thousand, and rows that no block of 64 KiB holds.
TEST(KernelEqualsItsLiteralModel, OnLargeFrames) {
  std::mt19937 random(15);
  for (const auto& [width, height] : {std::pair{30001, 6}, {6, 22000}, {1920, 40}}) {
    KernelParams params = RandomParams(random, width, height);
    params.windowLength = 4;
    params.roi = {0, 0, width, height};
    const Scene scene({width, height}, 24);
    ExpectSameRun(params, 4, [&](int i) { return scene.Shoot(ShakyPose(i)); });
  }
}

TEST(KernelEqualsItsLiteralModel, AtTheFinePrecisions) {
  std::mt19937 random(12);
  for (const auto& [width, height] : {std::pair{400, 90}, {89, 401}, {399, 399}, {420, 410}}) {
    const Scene scene({width, height}, 24);
    for (const std::uint32_t coefficients : {0U, 1U}) {
      for (const std::uint32_t quality : {0U, 2U, 3U}) {
        KernelParams params = RandomParams(random, width, height);
        params.windowLength = 4;
        params.estimationCoefficients = coefficients;
        params.roi = {0, 0, width, height};
        params.estimationQuality = quality;
        ExpectSameRun(params, 5, [&](int i) { return scene.Shoot(ShakyPose(i)); });
        if (HasFailure()) return;
      }
    }
  }
}

/// Frames that the estimator cannot explain: noise, flat fields, stripes along one axis, sudden jumps.
std::vector<std::uint8_t> HostileFrame(const FrameGeometry& frame, int number) {
  std::vector<std::uint8_t> pixels =
      RandomBytes(static_cast<std::size_t>(frame.SizeBytes()), static_cast<std::uint32_t>(number));
  for (std::int32_t row = 0; row < frame.height; ++row) {
    for (std::int32_t i = 0; i < frame.width * kBytesPerPixel; ++i) {
      std::uint8_t& byte = pixels[static_cast<std::size_t>(frame.Offset(0, row) + i)];
      const int phase = number * 2;
      switch (number % 6) {
        case 0:
          byte = 0;
          break;
        case 1:
          byte = (i / 3 + phase) / 5 % 2 == 0 ? 255 : 0;
          break;
        case 2:
          byte = static_cast<std::uint8_t>((i / 3 + phase) * 5 / 2);
          break;
        case 3:
          byte = (row + phase) % 6 < 3 ? 255 : 0;
          break;
        case 4:
          byte = static_cast<std::uint8_t>(byte < 128 ? 0 : 255);
          break;
        default:
          break;
      }
    }
  }
  return pixels;
}

TEST(KernelEqualsItsLiteralModel, OnFramesWithoutExplanation) {
  std::mt19937 random(13);
  for (const auto& [width, height] : {std::pair{2, 2}, {3, 3}, {7, 5}, {101, 40}, {181, 175}, {260, 250}}) {
    for (const std::uint32_t coefficients : {0U, 1U}) {
      for (const int first : {0, 1, 2}) {
        KernelParams params = RandomParams(random, width, height);
        params.windowLength = 4;
        params.estimationCoefficients = coefficients;
        const FrameGeometry frame(width, height);
        // From one start the kinds alternate, from another they come in pairs.
        ExpectSameRun(params, 14, [&](int i) { return HostileFrame(frame, first == 2 ? i / 2 : i + first); });
        if (HasFailure()) return;
      }
    }
  }
}

TEST(KernelEqualsItsLiteralModel, OnManySmallHostileRunsOfEveryWindow) {
  std::mt19937 random(14);
  for (int round = 0; round < 300; ++round) {
    const std::int32_t width = 4 + Below(random, 20), height = 4 + Below(random, 20);
    KernelParams params = RandomParams(random, width, height);
    params.windowLength = OneOf(random, {4, 4, 4, 8, 16, 24, 32});
    params.estimationCoefficients = OneOf(random, {0U, 1U});
    params.gaussianWeights = OneOf(random, {0, 1});
    params.roi = {0, 0, width, height};
    const FrameGeometry frame(width, height);
    ExpectSameRun(params, params.windowLength / 2 + 12,
                  [&](int i) { return HostileFrame(frame, i * 7 + round); });
    if (HasFailure()) return;
  }
  for (const std::int32_t window : {64, 128}) {
    KernelParams params = DefaultParams(24, 20);
    params.windowLength = window;
    params.gaussianWeights = 1;
    const Scene scene({24, 20}, 24);
    ExpectSameRun(params, window + 10, [&](int i) { return scene.Shoot(ShakyPose(i)); });
    if (HasFailure()) return;
  }
}

}  // namespace
