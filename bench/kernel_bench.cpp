#include <benchmark/benchmark.h>
#include <cstring>
#include <map>
#include <utility>
#include <vector>

#include "engine/stabilizersettings.h"
#include "kernel/dispatch.h"
#include "kernel/framecompensation.h"
#include "kernel/gaussianpyramid.h"
#include "kernel/motionestimation.h"
#include "kernel/pathsmoothing.h"
#include "scenes/scene.h"

// CPU time of each stage of the classic engine, on one thread, with textured frames of a shaky camera.

namespace {

using Frame = std::vector<std::uint8_t>;

/// A shaky clip, made once for each size.
const EndlessClip<Frame>& ClipOf(const FrameGeometry& frame) {
  static std::map<std::pair<std::int32_t, std::int32_t>, EndlessClip<Frame>> clips;
  const std::pair size(frame.width, frame.height);
  if (!clips.contains(size)) clips.emplace(size, ShakyFrames(frame, 8));
  return clips.at(size);
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
  const EndlessClip<Frame>& clip = ClipOf(SizeOf(state));
  std::vector<Frame> copies(17, clip[0]);
  std::size_t number = 0;
  for (auto _ : state) {
    const Frame& frame = clip[number];
    std::memcpy(copies[number++ % copies.size()].data(), frame.data(), frame.size());
    benchmark::ClobberMemory();
  }
}

void Pyramid(benchmark::State& state) {
  const FrameGeometry frame = SizeOf(state);
  const EndlessClip<Frame>& clip = ClipOf(frame);
  auto levels = MakePyramid(frame.width, frame.height);
  Frame copy = clip[0];
  std::size_t number = 0;
  for (auto _ : state)
    BuildPyramid(levels, clip[number++].data(), frame, {0, 0, frame.width, frame.height}, copy.data(),
                 BestOps());
}

void Motion(benchmark::State& state, EstimationCoefficients coefficients, std::uint32_t quality) {
  const FrameGeometry frame = SizeOf(state);
  const EndlessClip<Frame>& clip = ClipOf(frame);
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
  const EndlessClip<Frame>& clip = ClipOf(frame);
  KernelParams params = MakeKernelParams({}, {frame.width, frame.height});
  params.clippingOption = static_cast<std::uint32_t>(clipping);
  params.cropMarginX = frame.width / 20;
  params.cropMarginY = frame.height / 20;
  const Compensation compensation(params);
  Frame output = clip[0];
  std::size_t number = 0;
  for (auto _ : state)
    CompensateFrame(compensation, clip[number++].data(), correction, output.data(), BestOps());
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
