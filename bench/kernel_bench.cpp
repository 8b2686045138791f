#include <benchmark/benchmark.h>
#include <cstring>
#include <map>
#include <utility>
#include <vector>

#include "kernel/dispatch.h"
#include "kernel/framecompensation.h"
#include "kernel/gaussianpyramid.h"
#include "kernel/motionestimation.h"
#include "kernel/pathsmoothing.h"
#include "support/params.h"
#include "support/scene.h"

// One figure a stage and one for the whole frame, on textured frames of a shaky camera. Times are of one
// thread.

namespace {

using Frame = std::vector<std::uint8_t>;

constexpr int kClipFrames = 8;

/// A few frames of a shaky clip, made once for each size.
const std::vector<Frame>& ClipOf(const FrameGeometry& frame) {
  static std::map<std::pair<std::int32_t, std::int32_t>, std::vector<Frame>> clips;
  std::vector<Frame>& clip = clips[{frame.width, frame.height}];
  if (clip.empty()) {
    const Scene scene(frame, 24);
    for (int i = 0; i < kClipFrames; ++i) clip.push_back(scene.Shoot(ShakyPose(i)));
  }
  return clip;
}

/// The clip forward and backward without end, so that the camera never jumps.
const Frame& FrameAt(const std::vector<Frame>& clip, std::size_t number) {
  const std::size_t period = 2 * (clip.size() - 1), phase = number % period;
  return clip[phase < clip.size() ? phase : period - phase];
}

FrameGeometry SizeOf(const benchmark::State& state) {
  return {static_cast<std::int32_t>(state.range(0)), static_cast<std::int32_t>(state.range(1))};
}

void AllSizes(benchmark::internal::Benchmark* bench) {
  bench->ArgNames({"w", "h"})->Unit(benchmark::kMillisecond);
  for (const auto& [width, height] : {std::pair{640, 480}, {1280, 720}, {1920, 1080}, {3840, 2160}})
    bench->Args({width, height});
}

void CopyFrame(benchmark::State& state) {
  const std::vector<Frame>& clip = ClipOf(SizeOf(state));
  std::vector<Frame> copies(17, clip[0]);
  std::size_t number = 0;
  for (auto _ : state) {
    const Frame& frame = FrameAt(clip, number);
    std::memcpy(copies[number++ % copies.size()].data(), frame.data(), frame.size());
    benchmark::ClobberMemory();
  }
}

void Pyramid(benchmark::State& state) {
  const FrameGeometry frame = SizeOf(state);
  const std::vector<Frame>& clip = ClipOf(frame);
  auto levels = MakePyramid(frame.width, frame.height);
  Frame copy = clip[0];
  std::size_t number = 0;
  for (auto _ : state)
    BuildPyramid(levels, FrameAt(clip, number++).data(), frame, {0, 0, frame.width, frame.height},
                 copy.data(), BestOps());
}

void Motion(benchmark::State& state, EstimationCoefficients coefficients, std::uint32_t quality) {
  const FrameGeometry frame = SizeOf(state);
  const std::vector<Frame>& clip = ClipOf(frame);
  auto levels = MakePyramid(frame.width, frame.height);
  RotationScratch scratch(frame.width, frame.height);
  Frame copy = clip[0];
  for (const std::size_t number : {0U, 1U})
    BuildPyramid(levels, clip[number].data(), frame, {0, 0, frame.width, frame.height}, copy.data(),
                 BestOps());
  for (auto _ : state)
    benchmark::DoNotOptimize(
        EstimateMotion(levels, static_cast<std::uint32_t>(coefficients), quality, scratch, BestOps()));
}

void Smoothing(benchmark::State& state) {
  const PathWeights weights = FindPathWeights(static_cast<std::int32_t>(state.range(0)), false);
  Ring<MotionRecord> ring(weights.entries.size());
  ring.Fill({3, -2, 0.1});
  for (auto _ : state) benchmark::DoNotOptimize(ComputeCorrection(ring, weights, 1920, 1080));
}

void Compensate(benchmark::State& state, ClippingOption clipping, const MotionRecord& correction) {
  const FrameGeometry frame = SizeOf(state);
  const std::vector<Frame>& clip = ClipOf(frame);
  KernelParams params = DefaultParams(frame.width, frame.height);
  params.clippingOption = static_cast<std::uint32_t>(clipping);
  params.cropMarginX = frame.width / 20;
  params.cropMarginY = frame.height / 20;
  const Compensation compensation(params);
  Frame output = clip[0];
  std::size_t number = 0;
  for (auto _ : state)
    CompensateFrame(compensation, FrameAt(clip, number++).data(), correction, output.data(), BestOps());
}

constexpr auto kXY = EstimationCoefficients::XY;
constexpr auto kXYTheta = EstimationCoefficients::XYTheta;

BENCHMARK(CopyFrame)->Apply(AllSizes);
BENCHMARK(Pyramid)->Apply(AllSizes);
BENCHMARK_CAPTURE(Motion, translation, kXY, 2)->Apply(AllSizes);
BENCHMARK_CAPTURE(Motion, rotation, kXYTheta, 2)->Apply(AllSizes);
BENCHMARK(Smoothing)->ArgName("window")->Arg(4)->Arg(32)->Arg(128);
BENCHMARK_CAPTURE(Compensate, shift, ClippingOption::Outline, {5, -3, 0})->Apply(AllSizes);
BENCHMARK_CAPTURE(Compensate, rotate, ClippingOption::Outline, {5, -3, 0.7})->Apply(AllSizes);
BENCHMARK_CAPTURE(Compensate, stretch, ClippingOption::CropAndStretch, {5, -3, 0})->Apply(AllSizes);

}  // namespace

BENCHMARK_MAIN();
