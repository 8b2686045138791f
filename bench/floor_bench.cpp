#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "engine/stabilizersettings.h"
#include "kernel/gaussianpyramid.h"
#include "kernel/motionestimation.h"
#include "kernel/stabilizevideokernel.h"
#include "scenes/scene.h"
#include "timing.h"

// CPU time of whole kernel calls, in milliseconds and in floors. A floor is four copies of a frame between
// cold buffers. Calls and floors are measured in turn: other programs on the machine slow both, and their
// ratio stays the same.

namespace {

using Frame = std::vector<std::uint8_t>;

constexpr int kClipFrames = 16;
constexpr int kRounds = 15;
constexpr std::size_t kFloorBuffers = 34;

struct Settings {
  const char* name;
  EstimationCoefficients coefficients;
  std::uint32_t quality;
  ClippingOption clipping;
  std::int32_t window;
};

constexpr auto kXY = EstimationCoefficients::XY;
constexpr auto kXYTheta = EstimationCoefficients::XYTheta;
constexpr Settings kSettings[] = {
    {"defaults: translation, quality 3, outline", kXY, 2, ClippingOption::Outline, 32},
    {"translation, quality 1", kXY, 0, ClippingOption::Outline, 32},
    {"translation, crop and stretch, bilinear", kXY, 2, ClippingOption::CropAndStretch, 32},
    {"rotation, quality 3, outline", kXYTheta, 2, ClippingOption::Outline, 32},
    {"rotation, quality 1", kXYTheta, 0, ClippingOption::Outline, 32},
    {"defaults, window 4", kXY, 2, ClippingOption::Outline, 4},
    {"defaults, window 128", kXY, 2, ClippingOption::Outline, 128},
};

KernelParams ParamsOf(const Settings& settings, const FrameGeometry& frame) {
  KernelParams params = MakeKernelParams({}, {frame.width, frame.height});
  params.estimationCoefficients = static_cast<std::uint32_t>(settings.coefficients);
  params.estimationQuality = settings.quality;
  params.clippingOption = static_cast<std::uint32_t>(settings.clipping);
  params.windowLength = settings.window;
  if (settings.clipping != ClippingOption::Outline) {
    params.cropMarginX = frame.width / 20;
    params.cropMarginY = frame.height / 20;
  }
  return params;
}

/// A kernel whose delay line is full.
class Run {
 public:
  Run(const Settings& settings, const EndlessClip<Frame>& clip, const FrameGeometry& frame,
      const KernelOps& ops)
      : m_clip(clip), m_buffer(clip[0].size()), m_kernel(ops) {
    m_kernel.Initialize(ParamsOf(settings, frame));
    while (m_noOutput) TimeFrame();
  }

  double TimeFrame() {
    std::memcpy(m_buffer.data(), m_clip[m_number++].data(), m_buffer.size());
    const double start = CpuMilliseconds();
    m_kernel.ProcessFrame(m_buffer.data(), false, &m_noOutput);
    return CpuMilliseconds() - start;
  }

 private:
  const EndlessClip<Frame>& m_clip;
  Frame m_buffer;
  CStabilizeVideoKernel m_kernel;
  std::size_t m_number = 0;
  bool m_noOutput = true;
};

/// Mean iterations a frame over the clip, finest level first.
std::string Iterations(const Settings& settings, const EndlessClip<Frame>& clip, const FrameGeometry& frame,
                       const KernelOps& ops) {
  auto levels = MakePyramid(frame.width, frame.height);
  RotationScratch scratch(frame.width, frame.height);
  Frame copy = clip[0];
  std::vector<int> iterations(levels.size());
  for (std::size_t number = 0; number < kClipFrames; ++number) {
    BuildPyramid(levels, clip[number].data(), frame, {0, 0, frame.width, frame.height}, copy.data(), ops);
    if (number == 0) continue;
    EstimateMotion(levels, static_cast<std::uint32_t>(settings.coefficients), settings.quality, scratch, ops);
    for (std::size_t i = 0; i < levels.size(); ++i) iterations[i] += levels[i].iterations;
  }
  std::string text;
  for (const int sum : iterations) {
    char number[32];
    std::snprintf(number, sizeof number, " %.1f", sum / (kClipFrames - 1.0));
    text += sum == 0 ? " -" : number;
  }
  return text;
}

void MeasureAll(const FrameGeometry& frame, const KernelOps& ops) {
  const EndlessClip<Frame> clip(ShakyFrames(frame, kClipFrames));
  std::vector<Frame> floorBuffers(kFloorBuffers, clip[0]);
  std::vector<std::unique_ptr<Run>> runs;
  for (const Settings& settings : kSettings)
    runs.push_back(std::make_unique<Run>(settings, clip, frame, ops));

  std::vector<double> floors;
  std::vector<std::vector<double>> times(runs.size());
  std::size_t next = 0;
  for (int round = 0; round < kRounds; ++round) {
    for (int repeat = 0; repeat < 3; ++repeat) {
      const double start = CpuMilliseconds();
      for (int copy = 0; copy < 4; ++copy, ++next)
        std::memcpy(floorBuffers[(next + kFloorBuffers / 2) % kFloorBuffers].data(),
                    floorBuffers[next % kFloorBuffers].data(), clip[0].size());
      floors.push_back(CpuMilliseconds() - start);
    }
    for (std::size_t i = 0; i < runs.size(); ++i) {
      runs[i]->TimeFrame();  // not counted: the cache holds the frames of the run before
      for (int repeat = 0; repeat < 4; ++repeat) times[i].push_back(runs[i]->TimeFrame());
    }
  }

  const double floor = Median(floors);
  std::printf("%dx%d, %s: floor %.2f ms\n", frame.width, frame.height, ops.name, floor);
  std::printf("%-42s %8s %8s   iterations by level, finest first\n", "settings", "ms", "floors");
  for (std::size_t i = 0; i < runs.size(); ++i) {
    const double time = Median(times[i]);
    std::printf("%-42s %8.3f %8.2f  %s\n", kSettings[i].name, time, time / floor,
                Iterations(kSettings[i], clip, frame, ops).c_str());
  }
}

/// Runs frames with one line of the settings and measures nothing, for tools that count instructions.
void RunOnly(std::size_t index, int frames, const FrameGeometry& frame, const KernelOps& ops) {
  const EndlessClip<Frame> clip(ShakyFrames(frame, kClipFrames));
  Run run(kSettings[index], clip, frame, ops);
  for (int i = 0; i < frames; ++i) run.TimeFrame();
}

int Number(std::string_view text) {
  int number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

}  // namespace

/// floor_bench [WIDTH HEIGHT [SIMD-LEVEL [LINE FRAMES]]], where LINE counts the lines of the settings from 0.
int main(int count, char** words) {
  const FrameGeometry frame(count > 2 ? Number(words[1]) : 1920, count > 2 ? Number(words[2]) : 1080);
  const KernelOps* ops = &BestOps();
  for (const KernelOps* const available : AvailableOps())
    if (count > 3 && std::string_view(words[3]) == available->name) ops = available;
  if (count > 5)
    RunOnly(static_cast<std::size_t>(Number(words[4])), Number(words[5]), frame, *ops);
  else
    MeasureAll(frame, *ops);
  return 0;
}
