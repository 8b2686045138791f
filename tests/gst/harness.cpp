#include "gst/harness.h"

#include <cstring>
#include <gtest/gtest.h>
#include <numeric>

#include "gst/element.h"
#include "gst/videoformat.h"

/// GLib forgets its first table of names on purpose. Its allocations show no caller; what the element leaves
/// of the library's objects is found by the library itself.
extern "C" [[gnu::visibility("default")]] const char* __lsan_default_suppressions() {
  return "leak:g_malloc";
}

namespace {

/// Ends the program where it uses the library wrongly, and expects that nothing of the library's is left
/// then.
class Library : public testing::Environment {
 public:
  void SetUp() override {
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK | G_LOG_LEVEL_CRITICAL));
    setenv("GST_TRACERS", "leaks", 1);
    gst_init(nullptr, nullptr);
    ASSERT_TRUE(RegisterElement(nullptr));
  }

  void TearDown() override {
    gst_debug_set_threshold_for_name("GST_TRACER", GST_LEVEL_TRACE);
    gst_debug_remove_log_function(gst_debug_log_default);
    const GstLogFunction expectNothing = [](GstDebugCategory*, GstDebugLevel level, const gchar*,
                                            const gchar*, gint, GObject*, GstDebugMessage* message,
                                            gpointer) {
      EXPECT_NE(level, GST_LEVEL_TRACE) << gst_debug_message_get(message);
    };
    gst_debug_add_log_function(expectNothing, nullptr, nullptr);
    gst_deinit();
  }
};

[[maybe_unused]] testing::Environment* const g_library = testing::AddGlobalTestEnvironment(new Library);

/// Calls `visit(sample, plane, index)` for each sample of a mapped frame, as bytes.
template <class Visit>
void ForEachSample(const GstVideoFrame& frame, const Visit& visit) {
  const precise::PictureFormat format = FactsOf(frame.info).format;
  for (int plane = 0; plane < format.planes; ++plane) {
    const int component = GST_VIDEO_INFO_IS_RGB(&frame.info) ? (plane + 1) % 3 : plane;
    auto* const data = static_cast<std::uint8_t*>(GST_VIDEO_FRAME_COMP_DATA(&frame, component));
    std::size_t index = 0;
    for (int row = 0; row < format.PlaneHeight(plane); ++row)
      for (int column = 0; column < format.PlaneWidth(plane); ++column)
        visit(data + row * GST_VIDEO_FRAME_COMP_STRIDE(&frame, component) +
                  column * GST_VIDEO_FRAME_COMP_PSTRIDE(&frame, component),
              static_cast<std::size_t>(plane), index++);
  }
}

void Stray(GstBuffer* buffer, const GstVideoInfo& info) {
  gsize offsets[GST_VIDEO_MAX_PLANES] = {};
  gint strides[GST_VIDEO_MAX_PLANES] = {};
  for (guint plane = 0; plane < GST_VIDEO_INFO_N_PLANES(&info); ++plane) {
    offsets[plane] = info.offset[plane] * 2 + 52;
    strides[plane] = info.stride[plane] + 10;
  }
  gst_buffer_add_video_meta_full(buffer, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_INFO_FORMAT(&info),
                                 static_cast<guint>(info.width), static_cast<guint>(info.height),
                                 GST_VIDEO_INFO_N_PLANES(&info), offsets, strides);
}

GstVideoInfo InfoOfText(const std::string& caps) {
  return InfoOf(*CapsPtr(gst_caps_from_string(caps.c_str())));
}

}  // namespace

HarnessPtr Harness(const std::string& properties, const std::string& caps) {
  HarnessPtr harness(gst_harness_new_parse(("vstabilize " + properties).c_str()));
  gst_harness_set_src_caps_str(harness.get(), caps.c_str());
  return harness;
}

void Set(GstHarness& harness, const char* name, const char* value) {
  GstElement* const element = gst_harness_find_element(&harness, "vstabilize");
  gst_util_set_object_arg(G_OBJECT(element), name, value);
  gst_object_unref(element);
}

std::string CapsText(const std::string& format, const std::string& more) {
  return "video/x-raw,width=67,height=51,framerate=25/1,format=" + format + more;
}

BufferPtr MakeFrame(const std::string& caps, int number, bool strayed) {
  const GstVideoInfo info = InfoOfText(caps);
  BufferPtr buffer(gst_buffer_new_allocate(nullptr, info.size * (strayed ? 3 : 1) + 200, nullptr));
  gst_buffer_memset(buffer.get(), 0, 0x5A, info.size);
  if (strayed) Stray(buffer.get(), info);
  const bool isOtherShot = number >= 20 && number < 30;
  const PlanarFrame samples =
      Shoot(FactsOf(info).format, {.pose = MakePose(number % 3 - 1.3, number % 5 * 0.7, number % 4 * 0.3),
                                   .scene = isOtherShot ? 2U : 1U});
  {
    const CMappedFrame mapped(info, buffer.get(), GST_MAP_WRITE);
    const int bits = FactsOf(info).format.bitsPerSample;
    ForEachSample(mapped.Frame(), [&](std::uint8_t* sample, std::size_t plane, std::size_t index) {
      const auto value = static_cast<std::uint16_t>(samples[plane][index] << (bits - 8));
      std::memcpy(sample, &value, bits > 8 ? 2 : 1);
    });
  }
  GST_BUFFER_PTS(buffer.get()) = static_cast<guint64>(number) * kFrameTime;
  GST_BUFFER_DURATION(buffer.get()) = kFrameTime;
  GST_BUFFER_OFFSET(buffer.get()) = static_cast<guint64>(number);
  return buffer;
}

Bytes SamplesOf(const std::string& caps, GstBuffer* frame) {
  const GstVideoInfo info = InfoOfText(caps);
  const CMappedFrame mapped(info, frame, GST_MAP_READ);
  Bytes bytes;
  ForEachSample(mapped.Frame(), [&](const std::uint8_t* sample, std::size_t, std::size_t) {
    bytes.insert(bytes.end(), sample, sample + FactsOf(info).format.BytesPerSample());
  });
  return bytes;
}

std::vector<int> PullAll(GstHarness& harness) {
  std::vector<int> numbers;
  while (const BufferPtr frame{gst_harness_try_pull(&harness)}) {
    numbers.push_back(static_cast<int>(GST_BUFFER_OFFSET(frame.get())));
    EXPECT_EQ(GST_BUFFER_PTS(frame.get()), GST_BUFFER_OFFSET(frame.get()) * kFrameTime);
    EXPECT_EQ(GST_BUFFER_DURATION(frame.get()), kFrameTime);
  }
  return numbers;
}

std::vector<int> Numbers(int first, int last) {
  std::vector<int> numbers(static_cast<std::size_t>(std::max(last - first + 1, 0)));
  std::iota(numbers.begin(), numbers.end(), first);
  return numbers;
}
