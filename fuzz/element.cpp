// Random frames, caps, seeks, events and properties on the GStreamer element.

#include "gst/element.h"

#include <gst/check/gstharness.h>
#include <string>

#include "fuzz/texts.h"
#include "gst/owners.h"

/// GLib never frees its first table of names.
extern "C" [[gnu::visibility("default")]] const char* __lsan_default_suppressions() {
  return "leak:g_malloc";
}

void Live(Choices& choices) {
  static const bool isReady = [] {
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK | G_LOG_LEVEL_CRITICAL));
    gst_init(nullptr, nullptr);
    return RegisterElement(nullptr) == TRUE;
  }();
  Require(isReady, "the element is known");
  GstHarness* const pads = gst_harness_new_parse("vstabilize qos=false window=4");
  GstElement* const element = gst_harness_find_element(pads, "vstabilize");
  GstVideoInfo info = {};
  const auto setCaps = [&] {
    const std::string caps = "video/x-raw,width=" + std::to_string(choices.Number(4, 70)) +
                             ",height=" + std::to_string(choices.Number(4, 50)) +
                             ",framerate=" + TextOf(choices, "25/1|0/1") +
                             ",format=" + TextOf(choices, "I420|NV12|GRAY8|GBR|Y444_10LE|I420_12LE|YV12");
    gst_video_info_from_caps(&info, CapsPtr(gst_caps_from_string(caps.c_str())).get());
    gst_harness_set_src_caps_str(pads, caps.c_str());
  };
  setCaps();
  GstSegment segment;
  gst_segment_init(&segment, GST_FORMAT_TIME);
  std::uint64_t in = 0, out = 0, lost = 0;
  const auto drain = [&] {
    while (const BufferPtr frame{gst_harness_try_pull(pads)}) {
      Require(GST_BUFFER_OFFSET(frame.get()) == out + lost, "frames come out in order");
      ++out;
    }
  };
  while (choices.AreLeft()) {
    const std::uint32_t what = choices.Byte() % 16;
    if (what < 9) {
      BufferPtr frame(gst_buffer_new_allocate(nullptr, info.size, nullptr));
      gst_buffer_memset(frame.get(), 0, static_cast<guint8>(choices.Byte()), info.size / 2);
      gst_buffer_memset(frame.get(), info.size / 2, static_cast<guint8>(choices.Byte()), info.size);
      GST_BUFFER_PTS(frame.get()) = choices.Once(9) ? GST_CLOCK_TIME_NONE : in * 40 * GST_MSECOND;
      GST_BUFFER_OFFSET(frame.get()) = in++;
      if (choices.Once(16)) GST_BUFFER_FLAG_SET(frame.get(), GST_BUFFER_FLAG_DISCONT);
      Require(gst_harness_push(pads, frame.release()) == GST_FLOW_OK, "the frame is taken");
    } else if (what == 9) {
      setCaps();
    } else if (what == 10) {  // a seek
      drain();
      gst_harness_push_event(pads, gst_event_new_flush_start());
      gst_harness_push_event(pads, gst_event_new_flush_stop(choices.Once(2)));
      gst_harness_push_event(pads, gst_event_new_segment(&segment));
      lost = in - out;
    } else if (what == 11) {
      gst_harness_push_event(pads, gst_event_new_gap(in * 40 * GST_MSECOND, 40 * GST_MSECOND));
    } else if (what == 12) {
      gst_harness_push_upstream_event(
          pads,
          gst_event_new_qos(GST_QOS_TYPE_UNDERFLOW, 2, choices.Number(-99, 99) * GST_MSECOND, GST_SECOND));
    } else if (what == 13) {
      gst_harness_push_event(pads, gst_event_new_segment(&segment));
    } else {
      const std::string property = TextOf(
          choices,
          "window 6|window 2|crop 0|crop 30|crop 7.5|clip crop|clip outline|clip stretch|background keep|"
          "background none|tripod true|rotation false|interpolation nearest");
      const std::size_t blank = property.find(' ');
      gst_util_set_object_arg(G_OBJECT(element), property.substr(0, blank).c_str(), &property[blank + 1]);
    }
    drain();
  }
  gst_harness_push_event(pads, gst_event_new_eos());
  drain();
  Require(out + lost == in, "all frames come out");
  gst_object_unref(element);
  gst_harness_teardown(pads);
}
