#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <memory>

#include "kernel/stabilizevideokernel.h"
#include "referencemodel.h"
#include "scenes/scene.h"
#include "support/memoryend.h"
#include "support/params.h"

namespace {

using reference::Frame;

void ExpectSameMotion(const MotionRecord& actual, const MotionRecord& expected) {
  EXPECT_EQ(actual.dx, expected.dx);
  EXPECT_EQ(actual.dy, expected.dy);
  EXPECT_EQ(actual.theta, expected.theta);
}

/// Hands a frame to the kernel, in memory that ends with the frame, and returns what comes back.
Frame Process(CStabilizeVideoKernel& kernel, MemoryEnd& memory, const Frame& input, bool repeat,
              bool delivers) {
  constexpr std::size_t kGuard = 256;
  const auto block = memory.Last<std::uint8_t>(kGuard + input.size());
  const auto guard = block.first(kGuard), frame = block.subspan(kGuard);
  std::ranges::fill(guard, std::uint8_t{0xCD});
  std::ranges::copy(input, frame.begin());
  bool noOutput = false;
  EXPECT_TRUE(kernel.ProcessFrame(frame.data(), repeat, &noOutput));
  EXPECT_EQ(noOutput, !delivers);
  EXPECT_EQ(std::ranges::count(guard, 0xCD), kGuard) << "something is written before the frame";
  return Frame(frame.begin(), frame.end());
}

/// Runs the kernel with each table of loops, and the model, over the same frames.
void ExpectSameRun(const KernelParams& params, int frames, const std::function<Frame(int)>& frameAt) {
  reference::Model model(params);
  std::vector<std::unique_ptr<CStabilizeVideoKernel>> kernels;
  for (const KernelOps* const ops : AvailableOps()) {
    kernels.push_back(std::make_unique<CStabilizeVideoKernel>(*ops));
    ASSERT_TRUE(kernels.back()->Initialize(params));
  }
  MemoryEnd memory(1 << 20);
  for (int i = 0; i < frames; ++i) {
    const Frame input = frameAt(i);
    const bool repeat = i % 5 == 0;
    Frame expected = input;
    const bool delivers = model.ProcessFrame(expected, repeat);
    for (std::size_t level = 0; level < kernels.size(); ++level) {
      SCOPED_TRACE(testing::Message() << AvailableOps()[level]->name << " frame " << i);
      const Frame content = Process(*kernels[level], memory, input, repeat, delivers);
      ExpectSameMotion(kernels[level]->LatestMotion(), model.LatestMotion());
      ExpectSameMotion(kernels[level]->LatestCorrection(), model.LatestCorrection());
      const auto difference = std::mismatch(content.begin(), content.end(), expected.begin()).first;
      EXPECT_EQ(difference, content.end()) << "first different byte " << difference - content.begin();
      if (testing::Test::HasFailure()) return;
    }
  }
}

TEST(KernelEqualsItsModel, OnMovingFramesOfAnySettings) {
  for (std::uint32_t round = 0; round < 60 && !HasFailure(); ++round) {
    SCOPED_TRACE(round);
    Choices choices(round);
    const auto side = [&] {
      return choices.OneOf({choices.Number(2, 13), choices.Number(75, 200), choices.Number(171, 230)});
    };
    const std::int32_t width = side(), height = side();
    const Scene scene({width, height}, 24, round);
    ExpectSameRun(ChooseParams(choices, width, height), 9, [&](int i) { return scene.Shoot(ShakyPose(i)); });
  }
}

/// Sides beyond a thousand, rows that no block of 64 KiB holds, and the sizes from which angles have 31 bits.
TEST(KernelEqualsItsModel, OnLargeFrames) {
  struct Case {
    std::int32_t width, height;
    std::uint32_t coefficients, quality, clipping;
  };
  for (const Case& test : {Case{30001, 6, 0, 2, 0},
                           {6, 22000, 1, 2, 1},
                           {1920, 40, 1, 0, 2},
                           {420, 190, 1, 0, 0},
                           {400, 90, 1, 3, 1},
                           {89, 401, 0, 0, 2},
                           {399, 399, 1, 0, 1}}) {
    SCOPED_TRACE(testing::Message() << test.width << "x" << test.height);
    KernelParams params = DefaultParams(test.width, test.height);
    params.windowLength = 4;
    params.estimationCoefficients = test.coefficients;
    params.estimationQuality = test.quality;
    params.clippingOption = test.clipping;
    params.cropMarginX = 2;
    params.cropMarginY = 1;
    const Scene scene({test.width, test.height}, 24);
    ExpectSameRun(params, 4, [&](int i) { return scene.Shoot(ShakyPose(i)); });
  }
}

/// Frames that show no motion the estimator could find: flat fields, stripes along one axis, a ramp, noise.
Frame HostileFrame(const FrameGeometry& frame, int number) {
  Frame pixels = RandomBytes(static_cast<std::size_t>(frame.SizeBytes()), static_cast<std::uint32_t>(number));
  const int phase = number * 2;
  for (std::int32_t row = 0; row < frame.height; ++row) {
    for (std::int32_t i = 0; i < frame.width * kBytesPerPixel; ++i) {
      std::uint8_t& byte = pixels[static_cast<std::size_t>(frame.Offset(0, row) + i)];
      const int values[] = {0,
                            (i / 3 + phase) / 5 % 2 == 0 ? 255 : 0,
                            (i / 3 + phase) * 5 / 2,
                            (row + phase) % 6 < 3 ? 255 : 0,
                            byte < 128 ? 0 : 255,
                            byte};
      byte = static_cast<std::uint8_t>(values[number % 6]);
    }
  }
  return pixels;
}

TEST(KernelEqualsItsModel, OnFramesWithoutExplanation) {
  for (std::uint32_t round = 0; round < 160 && !HasFailure(); ++round) {
    SCOPED_TRACE(round);
    Choices choices(round);
    const bool isSmall = round >= 16;
    const std::int32_t width = isSmall ? choices.Number(2, 23) : choices.OneOf({101, 181});
    const std::int32_t height = isSmall ? choices.Number(2, 23) : choices.OneOf({40, 175});
    KernelParams params = ChooseParams(choices, width, height);
    params.windowLength = isSmall ? choices.OneOf({4, 4, 8, 16, 24, 32}) : 4;
    // The kinds come in turn, in pairs, or with jumps.
    const int stride = choices.OneOf({1, 1, 7}), pairs = choices.OneOf({1, 2}), first = choices.Number(0, 5);
    ExpectSameRun(params, params.windowLength / 2 + 12, [&](int i) {
      return HostileFrame({width, height}, i / pairs * stride + first);
    });
  }
}

}  // namespace
