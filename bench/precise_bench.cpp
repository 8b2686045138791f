#include <benchmark/benchmark.h>
#include <cmath>
#include <map>
#include <utility>
#include <vector>

#include "precise/motion.h"
#include "precise/pyramid.h"
#include "precise/stabilizer.h"
#include "precise/warp.h"
#include "scenes/scene.h"

// CPU time of each stage of the precise engine and of whole frames, on one thread, with 4:2:0 frames of a
// shaky camera.

namespace {

using precise::Interpolation;

precise::PictureFormat FormatOf(const benchmark::State& state) {
  return {.width = static_cast<std::int32_t>(state.range(0)),
          .height = static_cast<std::int32_t>(state.range(1)),
          .planes = 3,
          .bitsPerSample = static_cast<int>(state.range(2)),
          .chromaShiftX = 1,
          .chromaShiftY = 1,
          .chromaSiteY = 0.5};
}

/// A frame in bytes or in 16-bit words. Its chroma planes are the upper left quarter of its luma.
class Frame {
 public:
  Frame(const precise::PictureFormat& format, const std::vector<std::uint8_t>& packed)
      : m_strideBytes(format.width * (format.bitsPerSample > 8 ? 2 : 1)) {
    for (std::size_t i = 1; i < packed.size(); i += 3) {
      const int sample = packed[i] << (format.bitsPerSample - 8);
      m_samples.push_back(static_cast<std::uint8_t>(sample));
      if (format.bitsPerSample > 8) m_samples.push_back(static_cast<std::uint8_t>(sample >> 8));
    }
  }

  precise::ConstPicture Planes() const {
    const precise::PlaneOf<const std::uint8_t> plane = {m_samples.data(), m_strideBytes};
    return {plane, plane, plane};
  }

  precise::Picture Planes() {
    const precise::PlaneOf<std::uint8_t> plane = {m_samples.data(), m_strideBytes};
    return {plane, plane, plane};
  }

 private:
  std::ptrdiff_t m_strideBytes;
  std::vector<std::uint8_t> m_samples;
};

constexpr int kClipFrames = 8;

/// A shaky clip, made once for each format.
const EndlessClip<Frame>& ClipOf(const precise::PictureFormat& format) {
  static std::map<std::pair<std::int32_t, int>, EndlessClip<Frame>> clips;
  const std::pair kind(format.width, format.bitsPerSample);
  if (!clips.contains(kind)) {
    std::vector<Frame> frames;
    for (const auto& packed : ShakyFrames({format.width, format.height}, kClipFrames))
      frames.emplace_back(format, packed);
    clips.emplace(kind, std::move(frames));
  }
  return clips.at(kind);
}

void AllSizes(benchmark::internal::Benchmark* bench) {
  bench->ArgNames({"w", "h", "bits"})->Unit(benchmark::kMillisecond);
  for (const auto& [width, height] : {std::pair{640, 480}, {1280, 720}, {1920, 1080}, {3840, 2160}})
    bench->Args({width, height, 8});
  bench->Args({1920, 1080, 10});
}

void Pyramid(benchmark::State& state) {
  const precise::PictureFormat format = FormatOf(state);
  const EndlessClip<Frame>& clip = ClipOf(format);
  precise::Pyramid pyramid(format);
  std::size_t number = 0;
  for (auto _ : state)
    BuildPyramid(clip[number++].Planes()[0], format.bitsPerSample, precise::SelectLoops(), {}, pyramid);
}

void Motion(benchmark::State& state) {
  const precise::PictureFormat format = FormatOf(state);
  const EndlessClip<Frame>& clip = ClipOf(format);
  precise::CMotionEstimator estimator(format, std::nullopt, precise::SelectLoops());
  std::vector<precise::Pyramid> pyramids;
  for (std::size_t i = 0; i < kClipFrames; ++i)
    BuildPyramid(clip[i].Planes()[0], format.bitsPerSample, precise::SelectLoops(), {},
                 pyramids.emplace_back(format));
  std::size_t number = 0;
  for (auto _ : state) {
    const std::size_t earlier = number++ % (pyramids.size() - 1);
    benchmark::DoNotOptimize(estimator.Estimate(pyramids[earlier], pyramids[earlier + 1], {}));
  }
}

void Warp(benchmark::State& state, Interpolation interpolation, double zoom) {
  const precise::PictureFormat format = FormatOf(state);
  const EndlessClip<Frame>& clip = ClipOf(format);
  const precise::Shown shown = {
      .input = format, .output = format, .interpolation = interpolation, .zoom = zoom};
  const precise::Correction correction = {.turn = {std::cos(0.005), std::sin(0.005)}, .shift = {5.3, -3.7}};
  Frame output = clip[0];
  std::size_t number = 0;
  for (auto _ : state) {
    const precise::ConstPicture in = clip[number++].Planes();
    for (const bool isChroma : {false, true})
      WarpPlanes(shown, correction, isChroma, in, output.Planes(), 0, format.PlaneHeight(isChroma ? 1 : 0),
                 false, precise::SelectLoops());
  }
}

void WholeFrame(benchmark::State& state, Interpolation interpolation, double marginShare,
                std::int32_t window) {
  const precise::PictureFormat format = FormatOf(state);
  const EndlessClip<Frame>& clip = ClipOf(format);
  precise::Settings settings;
  settings.window = window;
  settings.marginX = format.width * marginShare;
  settings.marginY = format.height * marginShare;
  settings.interpolation = interpolation;
  precise::CStabilizer stabilizer(format, settings);
  // Programs hold so many frames in memory.
  std::vector<Frame> frames;
  for (std::int32_t i = 0; i <= stabilizer.DelayFrames(); ++i)
    frames.push_back(clip[static_cast<std::size_t>(i)]);
  const EndlessClip<Frame> held(std::move(frames));
  Frame output = clip[0];
  std::size_t number = 0;
  const auto push = [&] { stabilizer.Push(held[number++].Planes()); };
  while (!stabilizer.CanDeliver()) push();
  stabilizer.Deliver(output.Planes());
  for (auto _ : state) {
    push();
    stabilizer.Deliver(output.Planes());
  }
}

BENCHMARK(Pyramid)->Apply(AllSizes);
BENCHMARK(Motion)->Apply(AllSizes);
BENCHMARK_CAPTURE(Warp, bilinear, Interpolation::Bilinear, 1)->Apply(AllSizes);
BENCHMARK_CAPTURE(Warp, bicubic, Interpolation::Bicubic, 1)->Apply(AllSizes);
BENCHMARK_CAPTURE(Warp, bicubic stretch, Interpolation::Bicubic, 1 / 0.9)->Apply(AllSizes);
BENCHMARK_CAPTURE(WholeFrame, bilinear, Interpolation::Bilinear, 0, 32)->Apply(AllSizes);
BENCHMARK_CAPTURE(WholeFrame, bicubic, Interpolation::Bicubic, 0, 32)->Apply(AllSizes);
BENCHMARK_CAPTURE(WholeFrame, bicubic stretch, Interpolation::Bicubic, 0.05, 32)->Apply(AllSizes);
BENCHMARK_CAPTURE(WholeFrame, window 4, Interpolation::Bicubic, 0.05, 4)
    ->Args({1920, 1080, 8})
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(WholeFrame, window 128, Interpolation::Bicubic, 0.05, 128)
    ->Args({1920, 1080, 8})
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
