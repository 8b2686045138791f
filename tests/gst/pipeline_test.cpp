#include <filesystem>
#include <gtest/gtest.h>
#include <random>

#include "gst/harness.h"
#include "host/commandrun.h"

namespace {

/// A running pipeline, which counts what reaches its `fakesink name=sink`.
class Pipeline {
 public:
  explicit Pipeline(const std::string& text) : m_pipeline(gst_parse_launch(text.c_str(), nullptr)) {
    GstElement* const sink = Find("sink");
    if (!sink) return;
    GstPad* const pad = gst_element_get_static_pad(sink, "sink");
    gst_pad_add_probe(
        pad, GST_PAD_PROBE_TYPE_BUFFER,
        [](GstPad*, GstPadProbeInfo*, gpointer count) {
          ++*static_cast<std::atomic<int>*>(count);
          return GST_PAD_PROBE_OK;
        },
        &m_frames, nullptr);
    gst_object_unref(pad);
    gst_object_unref(sink);
  }
  ~Pipeline() {
    gst_element_set_state(m_pipeline, GST_STATE_NULL);
    gst_object_unref(m_pipeline);
  }
  Pipeline(const Pipeline&) = delete;
  Pipeline& operator=(const Pipeline&) = delete;

  GstElement* Get() const { return m_pipeline; }
  int Frames() const { return m_frames; }
  GstElement* Find(const char* name) const { return gst_bin_get_by_name(GST_BIN(m_pipeline), name); }

  /// Waits until a change of state, or a seek, is done.
  void Settle() {
    EXPECT_NE(gst_element_get_state(m_pipeline, nullptr, nullptr, kPatience), GST_STATE_CHANGE_FAILURE);
  }

  /// Plays to the end; false after an error.
  bool Play() {
    gst_element_set_state(m_pipeline, GST_STATE_PLAYING);
    GstBus* const bus = gst_element_get_bus(m_pipeline);
    GstMessage* const message = gst_bus_timed_pop_filtered(
        bus, kPatience, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    gst_object_unref(bus);
    const bool isDone = message && GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS;
    if (message) gst_message_unref(message);
    return isDone;
  }

 private:
  static constexpr GstClockTime kPatience = 30 * GST_SECOND;
  GstElement* m_pipeline;
  std::atomic<int> m_frames = 0;
};

constexpr char kSink[] = " ! fakesink name=sink";

std::string ClipName() {
  return std::filesystem::temp_directory_path() / ("vstabilize_" + std::to_string(getpid()) + ".mkv");
}

/// A file that decoders and demuxers have to work on, as long as it lives.
class Clip {
 public:
  Clip() {
    const std::string make =
        "videotestsrc pattern=ball num-buffers=90 ! video/x-raw,width=160,height=120 ! jpegenc ! ";
    EXPECT_TRUE(Pipeline(make + "matroskamux ! filesink location=" + ClipName()).Play());
  }
  ~Clip() { std::filesystem::remove(ClipName()); }
};

TEST(Pipeline, PassesAsManyFramesAsCome) {
  const Clip clip;
  struct Case {
    std::string source;
    int frames;
  };
  for (const auto& [source, frames] :
       {Case{"videotestsrc num-buffers=70 ! vstabilize", 70},
        Case{"videotestsrc num-buffers=1 ! vstabilize", 1},
        Case{"filesrc location=" + ClipName() + " ! decodebin ! vstabilize", 90},
        Case{"filesrc location=" + ClipName() +
                 " ! decodebin ! vstabilize ! videoconvert ! video/x-raw,format=RGB",
             90},
        Case{"videotestsrc is-live=true num-buffers=40 ! video/x-raw,framerate=60/1 ! vstabilize window=8 "
             "qos=false ! "
             "identity sync=true",
             40},
        Case{"videotestsrc num-buffers=50 ! tee name=t ! queue ! vstabilize window=8 ! vstabilize clip=crop",
             50},
        Case{"videotestsrc num-buffers=25 ! video/x-raw,width=64 ! both. "
             "videotestsrc num-buffers=25 ! video/x-raw,width=96,format=NV12 ! both. concat name=both ! "
             "vstabilize",
             50}}) {
    Pipeline pipeline(source + kSink);
    EXPECT_TRUE(pipeline.Play()) << source;
    EXPECT_EQ(pipeline.Frames(), frames) << source;
  }
}

TEST(Pipeline, SurvivesChangesOfStateAndOfProperties) {
  Pipeline pipeline(std::string("videotestsrc num-buffers=200 ! video/x-raw,width=96,height=64 ! vstabilize "
                                "name=it window=16 ! queue") +
                    kSink);
  GstElement* const element = pipeline.Find("it");
  std::mt19937 random(1);
  for (int i = 0; i < 500; ++i) {
    gst_element_set_state(pipeline.Get(), static_cast<GstState>(GST_STATE_NULL + random() % 4));
    if (random() % 4 == 0) pipeline.Settle();
    g_object_set(element, "window", static_cast<guint>(random() % 40), "crop", random() % 2 == 0 ? 0.0 : 5.0,
                 nullptr);
  }
  gst_object_unref(element);
  EXPECT_TRUE(pipeline.Play());
}

TEST(Pipeline, SurvivesSeeks) {
  const Clip clip;
  for (const std::string& source : {"filesrc location=" + ClipName() + " ! decodebin",
                                    std::string("videotestsrc ! video/x-raw,width=160,height=120")}) {
    SCOPED_TRACE(source);
    Pipeline pipeline(source + " ! vstabilize window=16 ! queue" + kSink);
    gst_element_set_state(pipeline.Get(), GST_STATE_PAUSED);
    pipeline.Settle();
    std::mt19937 random(1);
    for (int i = 0; i < 60; ++i) {
      const auto flags = static_cast<GstSeekFlags>(
          GST_SEEK_FLAG_FLUSH | (i % 2 == 0 ? GST_SEEK_FLAG_ACCURATE : GST_SEEK_FLAG_KEY_UNIT));
      EXPECT_TRUE(gst_element_seek(pipeline.Get(), 1, GST_FORMAT_TIME, flags, GST_SEEK_TYPE_SET,
                                   random() % 2000 * GST_MSECOND, GST_SEEK_TYPE_SET, 4 * GST_SECOND));
      gst_element_set_state(pipeline.Get(), i % 3 == 0 ? GST_STATE_PLAYING : GST_STATE_PAUSED);
      if (i % 5 != 0) pipeline.Settle();
    }
    EXPECT_TRUE(pipeline.Play());
  }
}

TEST(Element, PostsWhatTheCommandLogs) {
  const std::string caps = CapsText("GRAY8");
  const HarnessPtr harness = Harness("post-messages=true", caps);
  GstBus* const bus = gst_bus_new();
  gst_element_set_bus(harness->element, bus);
  Set(*harness, "window", "8");
  std::string stream = "YUV4MPEG2 W67 H51 F25:1 Cmono\n";
  for (int i = 0; i < 40; ++i) {
    BufferPtr frame = MakeFrame(caps, i);
    const Bytes samples = SamplesOf(caps, frame.get());
    stream.append("FRAME\n").append(samples.begin(), samples.end());
    gst_harness_push(harness.get(), frame.release());
  }
  gst_harness_push_event(harness.get(), gst_event_new_eos());

  const std::string log = ClipName() + ".csv";
  EXPECT_EQ(RunWords("--window 8 --force --motion " + log, {stream.begin(), stream.end()}).code, 0);
  const File file(std::fopen(log.c_str(), "r"));
  char line[512];
  EXPECT_TRUE(std::fgets(line, sizeof line, file.get()));
  int posted = 0, latencies = 0;
  while (GstMessage* const message = gst_bus_pop(bus)) {
    if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_ELEMENT) {
      latencies += GST_MESSAGE_TYPE(message) == GST_MESSAGE_LATENCY ? 1 : 0;
      gst_message_unref(message);
      continue;
    }
    double expected[9];
    ASSERT_TRUE(std::fgets(line, sizeof line, file.get()));
    char* at = line;
    for (double& number : expected) number = std::strtod(at, &at), ++at;
    const GstStructure* const told = gst_message_get_structure(message);
    std::size_t column = 0;
    for (const char* const field : {"frame", "motion-x", "motion-y", "motion-theta", "correction-x",
                                    "correction-y", "correction-theta", "shot", "zoom"}) {
      const GValue* const value = gst_structure_get_value(told, field);
      EXPECT_EQ(G_VALUE_HOLDS_INT64(value) ? static_cast<double>(g_value_get_int64(value))
                                           : g_value_get_double(value),
                expected[column++])
          << field << " of frame " << posted;
    }
    guint64 time = 0;
    EXPECT_TRUE(gst_structure_get_uint64(told, "running-time", &time));
    EXPECT_EQ(time, static_cast<guint64>(posted++) * kFrameTime);
    gst_message_unref(message);
  }
  EXPECT_EQ(posted, 40);
  EXPECT_EQ(latencies, 1);
  std::filesystem::remove(log);
  gst_element_set_bus(harness->element, nullptr);
  gst_object_unref(bus);
}

}  // namespace
