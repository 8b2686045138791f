#include "gst/element.h"

#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gst/check/gstharness.h>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <sstream>
#include <thread>

#include "gst/owners.h"
#include "gst/videoformat.h"
#include "host/commandrun.h"
#include "scenes/planarscene.h"

/// GLib never frees its first table of names, and the stacks of its allocations show no caller to name here.
/// Leaked objects are found by GStreamer's own tracer.
extern "C" [[gnu::visibility("default")]] const char* __lsan_default_suppressions() {
  return "leak:g_malloc";
}

namespace {

/// Makes each wrong use of the library end the program, and expects that no object of the library is leaked.
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

constexpr GstClockTime kFrameTime = 40 * GST_MSECOND;

std::string CapsText(const std::string& format, const std::string& more = "") {
  return "video/x-raw,width=67,height=51,framerate=25/1,format=" + format + more;
}
const std::string kI420 = CapsText("I420");

CapsPtr CapsOf(const std::string& text) { return CapsPtr(gst_caps_from_string(text.c_str())); }

/// Calls `visit(sample, plane, index)` for each sample of a frame, planes in the engine's order.
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

void Stamp(GstBuffer* frame, int number) {
  GST_BUFFER_PTS(frame) = static_cast<guint64>(number) * kFrameTime;
  GST_BUFFER_DURATION(frame) = kFrameTime;
  GST_BUFFER_OFFSET(frame) = static_cast<guint64>(number);
}

/// A frame of a shaky camera. With `strayed`, rows have padding, and planes have gaps before them.
BufferPtr MakeFrame(const std::string& caps, int number, bool strayed = false) {
  const GstVideoInfo info = InfoOf(*CapsOf(caps));
  BufferPtr frame(gst_buffer_new_allocate(nullptr, 3 * info.size + 200, nullptr));
  gsize offsets[GST_VIDEO_MAX_PLANES] = {};
  gint strides[GST_VIDEO_MAX_PLANES] = {};
  for (guint plane = 0; plane < GST_VIDEO_INFO_N_PLANES(&info); ++plane) {
    offsets[plane] = info.offset[plane] * 2 + 52;
    strides[plane] = info.stride[plane] + 10;
  }
  if (strayed)
    gst_buffer_add_video_meta_full(frame.get(), GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_INFO_FORMAT(&info), 67,
                                   51, GST_VIDEO_INFO_N_PLANES(&info), offsets, strides);
  const precise::PictureFormat format = FactsOf(info).format;
  const PlanarFrame samples =
      Shoot(format, {.pose = MakePose(number % 3 - 1.3, number % 5 * 0.7, number % 4 * 0.3),
                     .scene = number >= 20 && number < 30 ? 2U : 1});
  const CMappedFrame mapped(info, frame.get(), GST_MAP_WRITE);
  ForEachSample(mapped.Frame(), [&](std::uint8_t* sample, std::size_t plane, std::size_t index) {
    const auto value = static_cast<std::uint16_t>(samples[plane][index] << (format.bitsPerSample - 8));
    std::memcpy(sample, &value, static_cast<std::size_t>(format.BytesPerSample()));
  });
  Stamp(frame.get(), number);
  return frame;
}

/// The frame as it stands in a YUV4MPEG2 stream.
std::string Streamed(const GstCaps& caps, GstBuffer* frame) {
  const GstVideoInfo info = InfoOf(caps);
  const CMappedFrame mapped(info, frame, GST_MAP_READ);
  std::string bytes = "FRAME\n";
  ForEachSample(mapped.Frame(), [&](const std::uint8_t* sample, std::size_t, std::size_t) {
    bytes.append(sample, sample + FactsOf(info).format.BytesPerSample());
  });
  return bytes;
}

std::string TemporaryName(const std::string& extension) {
  return testing::TempDir() + "gst_tests_" + std::to_string(getpid()) + extension;
}

/// Writes 2-4 out as 2 3 4, and keeps all other words.
std::string WrittenOut(const std::string& words) {
  std::string text;
  std::istringstream stream(words);
  for (std::string word; stream >> word;) {
    int first = 0, last = 0;
    if (std::sscanf(word.c_str(), "%d-%d", &first, &last) == 2)
      for (; first <= last; ++first) text += std::to_string(first) + ' ';
    else
      text += word + ' ';
  }
  return text;
}

/// The element between two pads, without a pipeline.
class Harness {
 public:
  explicit Harness(const std::string& properties, std::string caps = kI420)
      : pads(*gst_harness_new_parse(("vstabilize " + properties).c_str())), m_caps(std::move(caps)) {
    gst_harness_set_src_caps_str(&pads, m_caps.c_str());
    const auto note = [](GstPad*, GstPadProbeInfo* info, gpointer harness) {
      static_cast<Harness*>(harness)->Note(*info);
      return GST_PAD_PROBE_OK;
    };
    gst_pad_add_probe(
        pads.sinkpad,
        static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM), note,
        this, nullptr);
  }
  ~Harness() { gst_harness_teardown(&pads); }

  void Push(BufferPtr frame) { EXPECT_EQ(gst_harness_push(&pads, frame.release()), GST_FLOW_OK); }

  /// Does what the words say: a number pushes that frame (!5: discontinuous, 5+: with a region of interest),
  /// a name sends that event, a=b sets a property, format=NV12 is the format of all that follows. A bar
  /// goes into `seen`, to tell what has left by then.
  void Play(const std::string& words) {
    std::istringstream stream(WrittenOut(words));
    for (std::string word; stream >> word;) {
      const std::size_t equals = word.find('=');
      if (word == "|")
        seen += "| ";
      else if (word.starts_with("format="))
        m_caps = CapsText(word.substr(equals + 1));
      else if (equals != word.npos)
        Set(word.substr(0, equals), word.substr(equals + 1));
      else if (std::isdigit(word[0]) != 0 || word[0] == '!')
        PushNumbered(word);
      else
        Send(word);
    }
  }

  /// The frames that came out since the last call, by their numbers.
  std::map<guint64, std::string> Pictures() {
    std::map<guint64, std::string> pictures;
    const CapsPtr caps(gst_pad_get_current_caps(pads.sinkpad));
    while (const BufferPtr frame{gst_harness_try_pull(&pads)})
      pictures[GST_BUFFER_OFFSET(frame.get())] = Streamed(*caps, frame.get());
    return pictures;
  }

  GstHarness& pads;
  std::string seen;  ///< frames and events that have left, in the words of Play

 private:
  void Set(const std::string& name, const std::string& value) {
    GstElement* const element = gst_harness_find_element(&pads, "vstabilize");
    gst_util_set_object_arg(G_OBJECT(element), name.c_str(), value.c_str());
    gst_object_unref(element);
  }

  void PushNumbered(const std::string& word) {
    BufferPtr frame = MakeFrame(m_caps, std::stoi(word.substr(word[0] == '!' ? 1 : 0)));
    if (word.front() == '!') GST_BUFFER_FLAG_SET(frame.get(), GST_BUFFER_FLAG_DISCONT);
    if (word.back() == '+') gst_buffer_add_video_region_of_interest_meta(frame.get(), "face", 1, 2, 3, 4);
    Push(std::move(frame));
  }

  void Send(const std::string& name) {
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    const auto send = [&](const char* event, const auto& make) {
      if (name == event) gst_harness_push_event(&pads, make());
    };
    send("flush-start", [] { return gst_event_new_flush_start(); });
    send("flush-stop", [] { return gst_event_new_flush_stop(FALSE); });
    send("segment", [&] { return gst_event_new_segment(&segment); });
    send("stream-start", [] { return gst_event_new_stream_start("another"); });
    send("tag", [] { return gst_event_new_tag(gst_tag_list_new(GST_TAG_TITLE, "title", nullptr)); });
    send("gap", [] { return gst_event_new_gap(8 * kFrameTime, kFrameTime); });
    send("caps", [this] { return gst_event_new_caps(CapsOf(m_caps).get()); });
    send("eos", [] { return gst_event_new_eos(); });
    send("custom-downstream",
         [] { return gst_event_new_custom(GST_EVENT_CUSTOM_DOWNSTREAM, gst_structure_new_empty("mark")); });
    if (name == "late" || name == "early")
      gst_harness_push_upstream_event(
          &pads, gst_event_new_qos(GST_QOS_TYPE_UNDERFLOW, 2,
                                   (name == "late" ? 3 : -3) * GstClockTimeDiff{kFrameTime}, 3 * kFrameTime));
    if (name != "drain") return;
    GstQuery* const query = gst_query_new_drain();
    gst_pad_peer_query(pads.srcpad, query);
    gst_query_unref(query);
  }

  void Note(const GstPadProbeInfo& info) {
    if ((info.type & GST_PAD_PROBE_TYPE_BUFFER) == 0) {
      seen += GST_EVENT_TYPE_NAME(info.data) + std::string(" ");
      return;
    }
    GstBuffer* const frame = GST_BUFFER(info.data);
    if (GST_BUFFER_IS_DISCONT(frame)) seen += '!';
    seen += std::to_string(GST_BUFFER_OFFSET(frame));
    seen += gst_buffer_get_video_region_of_interest_meta_id(frame, 0) ? "+ " : " ";
    EXPECT_EQ(GST_BUFFER_PTS(frame), GST_BUFFER_OFFSET(frame) * kFrameTime);
    EXPECT_EQ(GST_BUFFER_DURATION(frame), kFrameTime);
  }

  std::string m_caps;
};

TEST(Element, GivesTheBytesOfTheCommand) {
  struct Case {
    std::string format, caps, tags, properties, options;
  };
  for (const auto& [format, more, tags, properties, options] : std::vector<Case>{
           {"I420", "", "C420jpeg", "", ""},
           {"I420", ",chroma-site=mpeg2", "C420mpeg2", "crop=0 background=ff8000",
            "--crop 0 --background ff8000"},
           {"YV12", ",pixel-aspect-ratio=4/3", "A4:3 C420jpeg", "background=80ff00 clip=outline",
            "--background 80ff00 --clip outline"},
           {"Y42B", "", "C422", "rotation=false interpolation=bilinear",
            "--no-rotation --interpolation bilinear"},
           {"Y444", "", "C444", "tripod=true crop=8", "--tripod --crop 8%"},
           {"NV12", "", "C420jpeg", "clip=crop crop=10", "--clip crop --crop 10%"},
           {"NV12", "", "C420jpeg", "crop=0 background=keep window=7",
            "--crop 0 --background keep --window 8"},
           {"GRAY8", "", "Cmono", "cuts=false interpolation=nearest", "--no-cuts --interpolation nearest"},
           {"GBR", "", "C444", "", ""},
           {"I420_10LE", ",chroma-site=mpeg2", "C420p10", "window=4", "--window 4"},
           {"GBR_12LE", "", "C444p12", "clip=crop", "--clip crop"}}) {
    const std::string caps = CapsText(format, more);
    Harness harness(properties, caps);
    std::vector<BufferPtr> lent;
    std::string in, inAfter, out;
    for (int i = 0; i < 45; ++i) {
      lent.push_back(MakeFrame(caps, i, i % 2 == 1));
      in += Streamed(*CapsOf(caps), lent.back().get());
      harness.Push(BufferPtr(gst_buffer_ref(lent.back().get())));
    }
    harness.Play("eos");
    for (const BufferPtr& frame : lent) inAfter += Streamed(*CapsOf(caps), frame.get());
    EXPECT_TRUE(in == inAfter) << format << ": what was lent is written";

    for (const auto& [number, picture] : harness.Pictures()) out += picture;
    in.insert(0, "YUV4MPEG2 W67 H51 F25:1 " + tags + "\n");
    const Outcome outcome = RunWords(options, {in.begin(), in.end()});
    const std::string expected(outcome.output.begin(), outcome.output.end());
    EXPECT_TRUE(expected.substr(expected.find('\n') + 1) == out) << format << ' ' << outcome.messages;
  }
}

TEST(Element, DrainsHoldsOrDropsAsTheRulesSay) {
  struct Case {
    const char *words, *seen;
    int delay = 4;  ///< in frames, after the last word
  };
  for (const auto& [words, seen, delay] : std::vector<Case>{
           {"0-7 drain | 8-19 | eos", "0-7 | 8-15 | 16-19 eos"},
           {"0-7 tag | 8-19 | eos", "0-3 | 4-7 tag 8-15 | 16-19 eos"},
           {"0-7 gap | 8-19 | eos", "0-7 gap | 8-15 | 16-19 eos"},
           {"0-7 stream-start | 8-19 | eos", "0-7 stream-start | 8-15 | 16-19 eos"},
           {"0-7 segment | 8-19 | eos", "0-7 segment | 8-15 | 16-19 eos"},
           {"0-7 flush-start flush-stop segment | 8-19 | eos", "0-3 segment | 8-15 | 16-19 eos"},
           {"0-7 caps | 8-19 | eos", "0-3 | 4-15 | 16-19 eos"},
           {"0-7 format=NV12 caps | 8-19 | eos", "0-7 caps | 8-15 | 16-19 eos"},
           {"0-7 interpolation=nearest | 8-19 | eos", "0-3 | 4-15 | 16-19 eos"},
           {"0-7 window=4 | 8-19 | eos", "0-3 | 4-17 | 18 19 eos", 2},
           {"0-7 crop=10 clip=crop | 8-19 | eos", "0-3 | 4-7 caps 8-11 | 12-19 eos", 8},
           {"0-5 tag flush-start flush-stop segment 6-13 | eos", "0 1 segment tag 6-9 | 10-13 eos"},
           {"format=I420,framerate=(fraction)0/1 caps 0 2 4 6 8 10 | eos", "caps 0 2 | 4 6 8 10 eos", 8},
           {"crop=10 clip=crop 0 1+ 2 | eos", "caps | 0 1 2 eos", 8},
           {"0 1 custom-downstream 2+ 3 tag 4-10 custom-downstream 11 !12 | 13-15 eos",
            "0 1 custom-downstream 2+ 3 tag 4-10 custom-downstream 11 | !12 13-15 eos"}}) {
    Harness harness("window=8 crop=0");
    harness.Play(words);
    EXPECT_EQ(harness.seen, WrittenOut(seen)) << words;
    EXPECT_EQ(gst_harness_query_latency(&harness.pads), static_cast<GstClockTime>(delay) * kFrameTime);
  }
}

TEST(Element, SkipsWhatComesTooLateAndMeasuresIt) {
  Harness inTime("crop=0 window=8");
  inTime.Play("0-29 eos");
  std::map<guint64, std::string> expected = inTime.Pictures();
  for (const auto& [words, seen] : {std::pair{"qos=false 0-7 late 8-29 eos", "0-29 eos"},
                                    {"0-7 early 8-29 eos", "0-29 eos"},
                                    {"0-7 late 8-29 eos", "0-3 !10 11-29 eos"}}) {
    Harness harness("crop=0 window=8");
    harness.Play(words);
    EXPECT_EQ(harness.seen, WrittenOut(seen)) << words;
    for (const auto& [number, picture] : harness.Pictures())
      EXPECT_TRUE(picture == expected[number]) << words << ": frame " << number;
  }
}

TEST(Element, NeverStarvesABoundedPool) {
  for (const auto& [most, isHeld] : {std::pair{2U, false}, {11U, false}, {12U, true}, {0U, true}}) {
    Harness harness("window=16 crop=0");
    GstBufferPool* const pool = gst_video_buffer_pool_new();
    GstStructure* const config = gst_buffer_pool_get_config(pool);
    gst_buffer_pool_config_set_params(config, CapsOf(kI420).get(), 67 * 51 * 2, 0, most);
    gst_buffer_pool_set_config(pool, config);
    gst_buffer_pool_set_active(pool, TRUE);
    GstBufferPoolAcquireParams params = {};
    params.flags = GST_BUFFER_POOL_ACQUIRE_FLAG_DONTWAIT;
    for (int i = 0; i < 30; ++i) {
      GstBuffer* frame = nullptr;
      ASSERT_EQ(gst_buffer_pool_acquire_buffer(pool, &frame, &params), GST_FLOW_OK) << most << ": " << i;
      gst_buffer_memset(frame, 0, 99, 67 * 51 * 2);
      Stamp(frame, i);
      const BufferPtr alsoHere(gst_buffer_ref(frame));
      harness.Push(BufferPtr(frame));
      EXPECT_EQ(GST_MINI_OBJECT_REFCOUNT_VALUE(frame) > 1, isHeld);
    }
    EXPECT_EQ(harness.seen, WrittenOut("0-21"));
    gst_buffer_pool_set_active(pool, FALSE);
    gst_object_unref(pool);
  }
}

TEST(Element, RefusesInterlacedVideoAndRaisesBothLatencies) {
  Harness harness("window=8");
  const CapsPtr interlaced = CapsOf(CapsText("I420", ",interlace-mode=interleaved"));
  EXPECT_FALSE(gst_pad_peer_query_accept_caps(harness.pads.srcpad, interlaced.get()));
  gst_pad_set_query_function(harness.pads.srcpad, [](GstPad*, GstObject*, GstQuery* query) -> gboolean {
    gst_query_set_latency(query, TRUE, kFrameTime, 3 * kFrameTime);
    return TRUE;
  });
  GstQuery* const query = gst_query_new_latency();
  EXPECT_TRUE(gst_pad_peer_query(harness.pads.sinkpad, query));
  GstClockTime least = 0, most = 0;
  gst_query_parse_latency(query, nullptr, &least, &most);
  gst_query_unref(query);
  EXPECT_EQ(least, 9 * kFrameTime);
  EXPECT_EQ(most, 11 * kFrameTime);
}

TEST(Element, PostsWhatTheCommandLogs) {
  Harness harness("post-messages=true");
  GstBus* const bus = gst_bus_new();
  gst_element_set_bus(harness.pads.element, bus);
  harness.Play("window=8 0-39 eos");
  std::vector<double> posted, logged;
  int latencies = 0;
  while (GstMessage* const message = gst_bus_pop(bus)) {
    latencies += GST_MESSAGE_TYPE(message) == GST_MESSAGE_LATENCY;
    const GstStructure* const fields = gst_message_get_structure(message);
    for (const char* const field : {"frame", "motion-x", "motion-y", "motion-theta", "correction-x",
                                    "correction-y", "correction-theta", "shot", "zoom"}) {
      if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_ELEMENT) break;
      const GValue& value = *gst_structure_get_value(fields, field);
      posted.push_back(G_VALUE_HOLDS_INT64(&value) ? static_cast<double>(g_value_get_int64(&value))
                                                   : g_value_get_double(&value));
    }
    gst_message_unref(message);
  }
  EXPECT_EQ(latencies, 1);
  gst_element_set_bus(harness.pads.element, nullptr);
  gst_object_unref(bus);

  std::string stream = "YUV4MPEG2 W67 H51 F25:1 C420jpeg\n";
  for (int i = 0; i < 40; ++i) stream += Streamed(*CapsOf(kI420), MakeFrame(kI420, i).get());
  const std::string log = TemporaryName(".csv");
  EXPECT_EQ(RunWords("--window 8 --motion " + log, {stream.begin(), stream.end()}).code, 0);
  std::ifstream lines(log);
  lines.ignore(1000, '\n');
  for (double number = 0; lines >> number; lines.ignore(1)) logged.push_back(number);
  EXPECT_EQ(posted, logged);
  std::filesystem::remove(log);
}

/// A pipeline that ends in a sink, which counts the frames.
class Pipeline {
 public:
  explicit Pipeline(const std::string& text)
      : m_pipeline(gst_parse_launch((text + " ! fakesink name=sink signal-handoffs=true").c_str(), nullptr)) {
    GstElement* const sink = gst_bin_get_by_name(GST_BIN(m_pipeline), "sink");
    void (*const count)(std::atomic<int>*) = [](std::atomic<int>* frames) { ++*frames; };
    g_signal_connect_swapped(sink, "handoff", G_CALLBACK(count), &m_frames);
    gst_object_unref(sink);
  }
  ~Pipeline() {
    gst_element_set_state(m_pipeline, GST_STATE_NULL);
    gst_object_unref(m_pipeline);
  }

  GstElement* Get() const { return m_pipeline; }

  /// Waits until the last change of state, or seek, is done.
  void Settle() {
    EXPECT_NE(gst_element_get_state(m_pipeline, nullptr, nullptr, kPatience), GST_STATE_CHANGE_FAILURE);
  }

  /// Plays to the end. Returns the number of frames that the sink has got so far.
  int Play() {
    gst_element_set_state(m_pipeline, GST_STATE_PLAYING);
    GstMessage* const end =
        gst_bus_timed_pop_filtered(GST_ELEMENT_BUS(m_pipeline), kPatience,
                                   static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    EXPECT_TRUE(end && GST_MESSAGE_TYPE(end) == GST_MESSAGE_EOS);
    if (end) gst_message_unref(end);
    return m_frames;
  }

 private:
  static constexpr GstClockTime kPatience = 60 * GST_SECOND;
  GstElement* m_pipeline;
  std::atomic<int> m_frames = 0;
};

TEST(Pipeline, PassesAsManyFramesAsComeAndSurvivesSeeks) {
  const std::string clip = TemporaryName(".mkv"), file = "filesrc location=" + clip + " ! decodebin",
                    small = " ! video/x-raw,width=96,height=64";
  Pipeline("videotestsrc num-buffers=90" + small +
           " ! jpegenc ! matroskamux ! tee name=t ! queue ! filesink location=" + clip + " t. ! queue")
      .Play();
  for (const auto& [text, frames] : std::vector<std::pair<std::string, int>>{
           {"videotestsrc num-buffers=70 ! vstabilize", 70},
           {"videotestsrc num-buffers=1 ! vstabilize", 1},
           {"videotestsrc is-live=true num-buffers=40" + small +
                ",framerate=60/1 ! vstabilize qos=false ! identity sync=true",
            40},
           {"videotestsrc num-buffers=25 ! video/x-raw,width=64 ! both. videotestsrc num-buffers=25 ! "
            "video/x-raw,width=96,format=NV12 ! both. concat name=both ! vstabilize ! queue ! vstabilize "
            "clip=crop",
            50},
           {file + " ! vstabilize ! videoconvert ! video/x-raw,format=RGB", 90}})
    EXPECT_EQ(Pipeline(text).Play(), frames) << text;

  Pipeline pipeline(file + " ! vstabilize window=16 ! queue");
  gst_element_set_state(pipeline.Get(), GST_STATE_PAUSED);
  pipeline.Settle();
  for (int i = 0; i < 40; ++i) {
    const auto flags = static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | (i % 2 * GST_SEEK_FLAG_ACCURATE));
    EXPECT_TRUE(
        gst_element_seek_simple(pipeline.Get(), GST_FORMAT_TIME, flags, i * 37 % 50 * 40 * GST_MSECOND));
    gst_element_set_state(pipeline.Get(), i % 3 == 0 ? GST_STATE_PLAYING : GST_STATE_PAUSED);
    if (i % 5 != 0) pipeline.Settle();
  }
  EXPECT_GT(pipeline.Play(), 0);
  std::filesystem::remove(clip);
}

TEST(Pipeline, SurvivesChangesOfStateAndOfProperties) {
  Pipeline pipeline(
      "videotestsrc num-buffers=200 ! video/x-raw,width=96,height=64 ! vstabilize name=it ! queue");
  GstElement* const element = gst_bin_get_by_name(GST_BIN(pipeline.Get()), "it");
  GstPad* const pad = gst_element_get_static_pad(element, "src");
  std::atomic<bool> isDone = false;
  std::thread asker([&] {
    while (!isDone) const CapsPtr answer(gst_pad_query_caps(pad, nullptr));
  });
  std::mt19937 random(1);
  for (int i = 0; i < 300; ++i) {
    gst_element_set_state(pipeline.Get(), static_cast<GstState>(GST_STATE_NULL + random() % 4));
    if (random() % 4 == 0) pipeline.Settle();
    g_object_set(element, "window", static_cast<guint>(random() % 40), "crop", i % 2 * 5.0, nullptr);
  }
  isDone = true;
  asker.join();
  gst_object_unref(pad);
  gst_object_unref(element);
  EXPECT_GE(pipeline.Play(), 200);
}

}  // namespace
