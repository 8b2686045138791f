#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <random>

#include "gst/harness.h"
#include "host/commandrun.h"

namespace {

constexpr int kFrames = 45;

void Push(GstHarness& harness, const std::string& caps, int first, int last) {
  for (int i = first; i <= last; ++i)
    ASSERT_EQ(gst_harness_push(&harness, MakeFrame(caps, i).release()), GST_FLOW_OK);
}

Bytes Append(Bytes bytes, const Bytes& more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
  return bytes;
}

/// What the command makes of the same frames, which are those of a stream that begins with `head`.
std::vector<Bytes> RunCommandOn(const std::string& head, const std::string& options,
                                const std::vector<Bytes>& frames) {
  const std::string frameHead = "FRAME\n";
  Bytes stream(head.begin(), head.end());
  for (const Bytes& frame : frames)
    stream = Append(Append(std::move(stream), {frameHead.begin(), frameHead.end()}), frame);
  const Outcome outcome = RunWords(options, stream);
  EXPECT_EQ(outcome.code, 0) << outcome.messages;
  const auto begin = std::ranges::find(outcome.output, '\n') + 1;
  const std::ptrdiff_t step = (outcome.output.end() - begin) / std::ssize(frames);
  std::vector<Bytes> made;
  for (std::ptrdiff_t i = 0; i < std::ssize(frames); ++i)
    made.emplace_back(begin + i * step + std::ssize(frameHead), begin + (i + 1) * step);
  return made;
}

TEST(Element, GivesTheBytesOfTheCommand) {
  struct Case {
    std::string format, caps, tags, properties, options;
  };
  for (const auto& [format, more, tags, properties, options] : std::vector<Case>{
           {"I420", "", "C420jpeg", "", ""},
           {"I420", ",chroma-site=mpeg2", "C420mpeg2", "crop=0 background=ff8000",
            "--crop 0 --background ff8000"},
           {"YV12", ",pixel-aspect-ratio=4/3", "A4:3 C420jpeg", "background=80ff00 clip=outline window=8",
            "--background 80ff00 --clip outline --window 8"},
           {"Y42B", "", "C422", "rotation=false interpolation=bilinear",
            "--no-rotation --interpolation bilinear"},
           {"Y444", "", "C444", "tripod=true crop=8", "--tripod --crop 8%"},
           {"NV12", "", "C420jpeg", "clip=crop crop=10", "--clip crop --crop 10%"},
           {"NV12", "", "C420jpeg", "crop=0 background=keep window=7",
            "--crop 0 --background keep --window 8"},
           {"GRAY8", "", "Cmono", "cuts=false interpolation=nearest", "--no-cuts --interpolation nearest"},
           {"GBR", "", "C444", "", ""},
           {"I420_10LE", ",chroma-site=mpeg2", "C420p10", "window=4", "--window 4"},
           {"I422_10LE", "", "C422p10", "", ""},
           {"Y444_10LE", "", "C444p10", "", ""},
           {"I420_12LE", ",chroma-site=mpeg2", "C420p12", "", ""},
           {"I422_12LE", "", "C422p12", "", ""},
           {"Y444_12LE", "", "C444p12", "", ""},
           {"GBR_10LE", "", "C444p10", "", ""},
           {"GBR_12LE", "", "C444p12", "clip=crop", "--clip crop"}}) {
    SCOPED_TRACE(testing::Message() << format << " " << properties);
    const std::string caps = CapsText(format, more);
    const HarnessPtr harness = Harness(properties, caps);
    std::vector<Bytes> in;
    std::vector<BufferPtr> lent;
    for (int i = 0; i < kFrames; ++i) {
      BufferPtr frame = MakeFrame(caps, i, i % 2 == 1);
      in.push_back(SamplesOf(caps, frame.get()));
      lent.emplace_back(gst_buffer_ref(frame.get()));
      ASSERT_EQ(gst_harness_push(harness.get(), frame.release()), GST_FLOW_OK);
    }
    gst_harness_push_event(harness.get(), gst_event_new_eos());

    const std::vector<Bytes> expected = RunCommandOn("YUV4MPEG2 W67 H51 F25:1 " + tags + "\n", options, in);
    const CapsPtr outCaps(gst_pad_get_current_caps(harness->sinkpad));
    gchar* const outText = gst_caps_to_string(outCaps.get());
    for (std::size_t i = 0; i < in.size(); ++i) {
      const BufferPtr out(gst_harness_try_pull(harness.get()));
      ASSERT_TRUE(out);
      EXPECT_EQ(GST_BUFFER_OFFSET(out.get()), i);
      EXPECT_TRUE(SamplesOf(outText, out.get()) == expected[i]) << "frame " << i;
      EXPECT_TRUE(SamplesOf(caps, lent[i].get()) == in[i]) << "input " << i << " was written";
    }
    g_free(outText);
    EXPECT_EQ(PullAll(*harness), Numbers(1, 0));
  }
}

void Send(GstHarness& harness, GstEvent* event) { gst_harness_push_event(&harness, event); }

void SendCaps(GstHarness& harness, const std::string& caps) {
  Send(harness, gst_event_new_caps(CapsPtr(gst_caps_from_string(caps.c_str())).get()));
}

GstClockTime LatencyOf(GstHarness& harness) { return gst_harness_query_latency(&harness); }

// The delay is four frames, then something happens.
TEST(Element, DrainsHoldsOrDropsAsTheRulesSay) {
  const std::string caps = CapsText("I420"), otherCaps = CapsText("NV12");
  const auto tags = [] { return gst_event_new_tag(gst_tag_list_new(GST_TAG_TITLE, "later", nullptr)); };
  struct Case {
    const char* what;
    std::function<void(GstHarness&)> act;
    int drawn, next;        ///< frames that are out then, and the first that comes out later
    std::size_t delay = 4;  ///< frames, from then on
    std::string capsThen = {};
  };
  for (const auto& [what, act, drawn, next, delay, capsThen] : std::vector<Case>{
           {"tags", [&](GstHarness& harness) { Send(harness, tags()); }, 4, 4},
           {"gap", [](GstHarness& harness) { Send(harness, gst_event_new_gap(8 * kFrameTime, kFrameTime)); },
            8, 8},
           {"stream", [](GstHarness& harness) { Send(harness, gst_event_new_stream_start("another")); }, 8,
            8},
           {"segment",
            [](GstHarness& harness) {
              GstSegment segment;
              gst_segment_init(&segment, GST_FORMAT_TIME);
              Send(harness, gst_event_new_segment(&segment));
            },
            8, 8},
           {"flush",
            [](GstHarness& harness) {
              Send(harness, gst_event_new_flush_start());
              Send(harness, gst_event_new_flush_stop(FALSE));
              GstSegment segment;
              gst_segment_init(&segment, GST_FORMAT_TIME);
              Send(harness, gst_event_new_segment(&segment));
            },
            4, 8},
           {"buffers wanted back",
            [](GstHarness& harness) {
              GstQuery* const query = gst_query_new_drain();
              gst_pad_peer_query(harness.srcpad, query);
              gst_query_unref(query);
            },
            8, 8},
           {"same caps", [&](GstHarness& harness) { SendCaps(harness, caps); }, 4, 4},
           {"other caps", [&](GstHarness& harness) { SendCaps(harness, otherCaps); }, 8, 8, 4, otherCaps},
           {"interpolation", [](GstHarness& harness) { Set(harness, "interpolation", "nearest"); }, 4, 4},
           {"window", [](GstHarness& harness) { Set(harness, "window", "4"); }, 4, 4, 2},
           {"crop",
            [](GstHarness& harness) {
              Set(harness, "crop", "10");
              Set(harness, "clip", "crop");
            },
            4, 4, 8}}) {
    SCOPED_TRACE(what);
    const HarnessPtr harness = Harness("window=8 crop=0", caps);
    Push(*harness, caps, 0, 7);
    EXPECT_EQ(LatencyOf(*harness), 4 * kFrameTime);
    act(*harness);
    EXPECT_EQ(PullAll(*harness), Numbers(0, drawn - 1));
    const std::string& later = capsThen.empty() ? caps : capsThen;
    Push(*harness, later, 8, 19);
    EXPECT_EQ(LatencyOf(*harness), delay * kFrameTime);
    EXPECT_EQ(PullAll(*harness), Numbers(next, 19 - static_cast<int>(delay)));
    Send(*harness, gst_event_new_eos());
    EXPECT_EQ(PullAll(*harness), Numbers(20 - static_cast<int>(delay), 19));
  }
}

TEST(Element, BeginsAnewAtADiscontinuity) {
  const std::string caps = CapsText("I420");
  const HarnessPtr harness = Harness("window=8 crop=0", caps);
  Push(*harness, caps, 0, 7);
  BufferPtr frame = MakeFrame(caps, 8);
  GST_BUFFER_FLAG_SET(frame.get(), GST_BUFFER_FLAG_DISCONT);
  gst_harness_push(harness.get(), frame.release());
  EXPECT_EQ(PullAll(*harness), Numbers(0, 7));
  Push(*harness, caps, 9, 12);
  const BufferPtr out(gst_harness_pull(harness.get()));
  EXPECT_TRUE(GST_BUFFER_IS_DISCONT(out.get()));
  EXPECT_EQ(GST_BUFFER_OFFSET(out.get()), 8U);
}

TEST(Element, SendsEventsAndMetasOnWithTheirFrame) {
  const std::string caps = CapsText("I420");
  const HarnessPtr harness = Harness("window=8", caps);
  std::vector<std::string> seen;
  gst_pad_add_probe(
      harness->sinkpad,
      static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM),
      [](GstPad*, GstPadProbeInfo* info, gpointer log) {
        auto& lines = *static_cast<std::vector<std::string>*>(log);
        if (GstEvent* const event = GST_PAD_PROBE_INFO_EVENT(info);
            (info->type & GST_PAD_PROBE_TYPE_BUFFER) == 0)
          lines.emplace_back(
              GST_EVENT_TYPE(event) == GST_EVENT_CUSTOM_DOWNSTREAM ? "custom" : GST_EVENT_TYPE_NAME(event));
        else {
          GstBuffer* const frame = GST_PAD_PROBE_INFO_BUFFER(info);
          lines.push_back(std::to_string(GST_BUFFER_OFFSET(frame)));
          if (gst_buffer_get_video_region_of_interest_meta_id(frame, 0)) lines.back() += "+";
        }
        return GST_PAD_PROBE_OK;
      },
      &seen, nullptr);
  for (int i = 0; i < 12; ++i) {
    BufferPtr frame = MakeFrame(caps, i);
    if (i == 2) gst_buffer_add_video_region_of_interest_meta(frame.get(), "face", 1, 2, 3, 4);
    gst_harness_push(harness.get(), frame.release());
    if (i == 1 || i == 10)
      Send(*harness, gst_event_new_custom(GST_EVENT_CUSTOM_DOWNSTREAM, gst_structure_new_empty("mark")));
    if (i == 3) Send(*harness, gst_event_new_tag(gst_tag_list_new(GST_TAG_TITLE, "title", nullptr)));
  }
  Send(*harness, gst_event_new_eos());
  const std::vector<std::string> expected = {"0", "1", "custom", "2+", "3",  "tag",    "4",  "5",
                                             "6", "7", "8",      "9",  "10", "custom", "11", "eos"};
  EXPECT_EQ(seen, expected);
}

TEST(Element, SkipsWhatComesTooLateAndMeasuresIt) {
  const std::string caps = CapsText("I420");
  struct Case {
    const char* properties;
    GstClockTimeDiff lateness;
    int firstSkipped, lastSkipped;
  };
  for (const auto& [properties, lateness, firstSkipped, lastSkipped] :
       {Case{"window=8 crop=0", static_cast<GstClockTimeDiff>(3 * kFrameTime), 4, 9},
        Case{"window=8 crop=0", -static_cast<GstClockTimeDiff>(3 * kFrameTime), 4, 3},
        Case{"window=8 crop=0 qos=false", static_cast<GstClockTimeDiff>(3 * kFrameTime), 4, 3}}) {
    std::vector<Bytes> drawn[2];
    for (const bool isLate : {false, true}) {
      const HarnessPtr harness = Harness(properties, caps);
      for (int i = 0; i < 30; ++i) {
        gst_harness_push(harness.get(), MakeFrame(caps, i).release());
        if (i == 7 && isLate)
          gst_harness_push_upstream_event(
              harness.get(), gst_event_new_qos(GST_QOS_TYPE_UNDERFLOW, 2, lateness, 3 * kFrameTime));
      }
      Send(*harness, gst_event_new_eos());
      drawn[isLate ? 1 : 0].resize(30);
      while (const BufferPtr out{gst_harness_try_pull(harness.get())})
        drawn[isLate ? 1 : 0][GST_BUFFER_OFFSET(out.get())] = SamplesOf(caps, out.get());
    }
    for (int i = 0; i < 30; ++i) {
      const auto frame = static_cast<std::size_t>(i);
      if (i >= firstSkipped && i <= lastSkipped) drawn[0][frame].clear();
      EXPECT_TRUE(drawn[0][frame] == drawn[1][frame]) << properties << ", " << lateness << ": frame " << i;
    }
  }
}

TEST(Element, NeverStarvesABoundedPool) {
  const std::string caps = CapsText("I420");
  for (const guint most : {2U, 15U, 0U}) {
    SCOPED_TRACE(most);
    const HarnessPtr harness = Harness("window=16 crop=0", caps);
    GstBufferPool* const pool = gst_video_buffer_pool_new();
    GstStructure* const config = gst_buffer_pool_get_config(pool);
    const CapsPtr poolCaps(gst_caps_from_string(caps.c_str()));
    const GstVideoInfo info = [&] {
      GstVideoInfo made;
      gst_video_info_from_caps(&made, poolCaps.get());
      return made;
    }();
    gst_buffer_pool_config_set_params(config, poolCaps.get(), static_cast<guint>(info.size), 0, most);
    gst_buffer_pool_set_config(pool, config);
    gst_buffer_pool_set_active(pool, TRUE);
    GstBufferPoolAcquireParams params = {};
    params.flags = GST_BUFFER_POOL_ACQUIRE_FLAG_DONTWAIT;
    int isHeld = 0;
    for (int i = 0; i < 30; ++i) {
      GstBuffer* frame = nullptr;
      ASSERT_EQ(gst_buffer_pool_acquire_buffer(pool, &frame, &params), GST_FLOW_OK) << "frame " << i;
      const BufferPtr content = MakeFrame(caps, i);
      GstMapInfo map;
      gst_buffer_map(content.get(), &map, GST_MAP_READ);
      gst_buffer_fill(frame, 0, map.data, info.size);
      gst_buffer_unmap(content.get(), &map);
      gst_buffer_copy_into(frame, content.get(), GST_BUFFER_COPY_TIMESTAMPS, 0, G_MAXSIZE);
      const BufferPtr alsoHere(gst_buffer_ref(frame));
      gst_harness_push(harness.get(), frame);
      isHeld += GST_MINI_OBJECT_REFCOUNT_VALUE(frame) > 1 ? 1 : 0;
    }
    EXPECT_EQ(isHeld, most == 0 || most == 15 ? 30 : 0);
    EXPECT_EQ(PullAll(*harness), Numbers(0, 21));
    gst_buffer_pool_set_active(pool, FALSE);
    gst_object_unref(pool);
  }
}

TEST(Element, TakesAndRefusesCapsInNegotiation) {
  const HarnessPtr harness = Harness("", CapsText("I420"));
  for (const auto& [more, isTaken] : {std::pair{"", TRUE},
                                      {",interlace-mode=progressive", TRUE},
                                      {",interlace-mode=interleaved", FALSE},
                                      {",interlace-mode=mixed", FALSE}})
    EXPECT_EQ(gst_pad_peer_query_accept_caps(
                  harness->srcpad, CapsPtr(gst_caps_from_string(CapsText("I420", more).c_str())).get()),
              isTaken)
        << more;
}

TEST(Element, RaisesTheLeastAndTheMostLatency) {
  const std::string caps = CapsText("I420");
  const HarnessPtr harness = Harness("window=8", caps);
  gst_pad_set_query_function(harness->srcpad, [](GstPad*, GstObject*, GstQuery* query) -> gboolean {
    gst_query_set_latency(query, TRUE, kFrameTime, 3 * kFrameTime);
    return TRUE;
  });
  Push(*harness, caps, 0, 0);
  GstQuery* const query = gst_query_new_latency();
  EXPECT_TRUE(gst_pad_peer_query(harness->sinkpad, query));
  gboolean isLive = FALSE;
  GstClockTime least = 0, most = 0;
  gst_query_parse_latency(query, &isLive, &least, &most);
  gst_query_unref(query);
  EXPECT_TRUE(isLive);
  EXPECT_EQ(least, 9 * kFrameTime);
  EXPECT_EQ(most, 11 * kFrameTime);
}

}  // namespace
