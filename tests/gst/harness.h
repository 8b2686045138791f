#pragma once

#include <gst/check/gstharness.h>
#include <string>
#include <vector>

#include "gst/owners.h"
#include "precise/picture.h"
#include "support/planarscene.h"

using Bytes = std::vector<std::uint8_t>;

struct HarnessReleaser {
  void operator()(GstHarness* harness) const { gst_harness_teardown(harness); }
};
using HarnessPtr = std::unique_ptr<GstHarness, HarnessReleaser>;

inline constexpr GstClockTime kFrameTime = 40 * GST_MSECOND;

/// The element alone, with these properties, between pads of these caps.
HarnessPtr Harness(const std::string& properties, const std::string& caps);

/// Sets a property of the element.
void Set(GstHarness& harness, const char* name, const char* value);

/// Caps of frames of 67x51 pixels at 25 frames a second.
std::string CapsText(const std::string& format, const std::string& more = "");

/// A shaken frame of these caps; its number makes the time and the offset. With `strayed`, rows have padding,
/// and planes stand apart and later in the memory.
BufferPtr MakeFrame(const std::string& caps, int number, bool strayed = false);

/// All samples without padding, plane by plane in the engine's order.
Bytes SamplesOf(const std::string& caps, GstBuffer* frame);

/// Numbers of the frames that have come out since the last call.
std::vector<int> PullAll(GstHarness& harness);

std::vector<int> Numbers(int first, int last);
