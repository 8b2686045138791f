#include <cstdio>
#include <cstdlib>
#include <gst/check/gstharness.h>
#include <set>
#include <vector>

#include "gst/element.h"
#include "gst/owners.h"
#include "gst/videoformat.h"
#include "precise/stabilizer.h"
#include "scenes/planarscene.h"
#include "timing.h"

// CPU time a frame of the element between two pads, and of the engine's own calls with the same frames,
// measured in turn: element_bench [WIDTH HEIGHT [ROUNDS]]

namespace {

constexpr int kFramesARound = 100;

/// `count` frames of a shaky camera.
std::vector<BufferPtr> MakeFrames(const GstVideoInfo& info, const StreamFacts& facts, std::int32_t count) {
  constexpr int kDifferent = 8;
  std::vector<PlanarFrame> pictures;
  for (int i = 0; i < kDifferent; ++i)
    pictures.push_back(Shoot(facts.format, {.pose = MakePose(3.0 * (i % 3), 2.0 * (i % 2), 0.2 * (i % 4))}));
  std::vector<BufferPtr> frames;
  for (std::int32_t i = 0; i < count; ++i) {
    frames.emplace_back(gst_buffer_new_allocate(nullptr, info.size, nullptr));
    for (guint plane = 0; plane < 3; ++plane) {
      const auto& samples = pictures[static_cast<std::size_t>(i % kDifferent)][plane];
      gst_buffer_fill(frames.back().get(), info.offset[plane], samples.data(), samples.size());
    }
  }
  return frames;
}

/// Calls `step(frame number)` for a round of frames. Returns CPU milliseconds a frame.
template <class Step>
double Time(int& number, const Step& step) {
  const double begin = CpuMilliseconds();
  for (int i = 0; i < kFramesARound; ++i) step(number++);
  return (CpuMilliseconds() - begin) / kFramesARound;
}

void Run(int width, int height, int rounds) {
  const CapsPtr caps(gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "I420", "width", G_TYPE_INT,
                                         width, "height", G_TYPE_INT, height, "framerate", GST_TYPE_FRACTION,
                                         30, 1, nullptr));
  const GstVideoInfo info = InfoOf(*caps);
  const StreamFacts facts = FactsOf(info);
  const precise::Settings settings = MakePreciseSettings({}, facts);
  precise::CStabilizer engine(facts.format, settings);
  const std::vector<BufferPtr> frames = MakeFrames(info, facts, engine.DelayFrames() + 2);
  std::vector<GstMapInfo> maps(frames.size());
  for (std::size_t i = 0; i < frames.size(); ++i) gst_buffer_map(frames[i].get(), &maps[i], GST_MAP_READ);
  // One buffer for all frames: the element's output pool also hands out the same memory again and again.
  const BufferPtr output(gst_buffer_new_allocate(nullptr, info.size, nullptr));
  const CMappedFrame out(info, output.get(), GST_MAP_WRITE);
  const auto call = [&](int number) {
    precise::ConstPicture planes;
    for (std::size_t plane = 0; plane < 3; ++plane)
      planes[plane] = {maps[static_cast<std::size_t>(number) % maps.size()].data + info.offset[plane],
                       info.stride[plane]};
    engine.Push(planes);
    if (engine.CanDeliver()) engine.Deliver(PlanesOf(out.Frame()));
  };

  GstHarness* const harness = gst_harness_new("vstabilize");
  gst_harness_set_src_caps(harness, gst_caps_ref(caps.get()));
  std::set<GstMemory*> memories;
  const auto push = [&](int number) {
    gst_harness_push(harness, gst_buffer_ref(frames[static_cast<std::size_t>(number) % frames.size()].get()));
    const BufferPtr delivered(gst_harness_try_pull(harness));
    if (delivered) memories.insert(gst_buffer_peek_memory(delivered.get(), 0));
    if (!delivered && number > engine.DelayFrames()) std::abort();
  };

  int called = 0, pushed = 0;
  std::vector<double> ofEngine, ofElement;
  for (int round = -1; round < rounds; ++round) {
    const double engineTime = Time(called, call), elementTime = Time(pushed, push);
    if (round < 0) continue;  // the first round fills delay lines and pools
    ofEngine.push_back(engineTime);
    ofElement.push_back(elementTime);
  }
  gst_harness_teardown(harness);
  for (std::size_t i = 0; i < frames.size(); ++i) gst_buffer_unmap(frames[i].get(), &maps[i]);
  std::printf(
      "%dx%d: engine %.2f ms a frame, element %.2f, ratio %.3f; %d frames came in the memory of %zu\n", width,
      height, Median(ofEngine), Median(ofElement), Median(ofElement) / Median(ofEngine),
      pushed - engine.DelayFrames(), memories.size());
}

}  // namespace

int main(int argc, char** argv) {
  gst_init(nullptr, nullptr);
  RegisterElement(nullptr);
  const auto argument = [&](int i, int otherwise) { return argc > i ? std::atoi(argv[i]) : otherwise; };
  Run(argument(1, 1920), argument(2, 1080), argument(3, 9));
}
