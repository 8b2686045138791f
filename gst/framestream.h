#pragma once

#include <deque>
#include <vector>

#include "gst/owners.h"
#include "gst/videoformat.h"
#include "precise/stabilizer.h"

/// The frames inside one engine, and the events that must stay in order with them.
class CFrameStream {
 public:
  /// `facts` describe `input`, and the settings must be valid for them. Throws std::bad_alloc.
  CFrameStream(const GstVideoInfo& input, const GstVideoInfo& output, const StreamFacts& facts,
               const precise::Settings& settings);

  /// Takes a frame and keeps it until it is delivered; false when the buffer holds no such frame.
  bool Push(BufferPtr frame);

  /// Keeps an event until the newest frame has left. Frames must be held.
  void Append(EventPtr event);

  /// Ends the stream. All frames held can then be delivered.
  void End();

  bool HoldsFrames() const { return !m_held.empty(); }
  bool CanDeliver() const { return m_engine.CanDeliver(); }
  GstBuffer* Oldest() const { return m_held.front().frame.Buffer(); }

  /// Draws the oldest frame, stabilized, into `out`, and releases it.
  precise::FrameReport Deliver(const GstVideoFrame& out);

  /// Releases the oldest frame without drawing it. Its motion still counts for the path.
  precise::FrameReport Skip();

  /// Moves out the events that were due behind frames that have left.
  std::vector<EventPtr> TakeDueEvents();

  /// Releases all frames, and moves out all events.
  std::vector<EventPtr> TakeAllEvents();

 private:
  struct Held {
    Held(const GstVideoInfo& info, GstBuffer* buffer) : frame(info, buffer, GST_MAP_READ) {}
    CMappedFrame frame;
    std::vector<EventPtr> behind;
  };

  void ReleaseOldest();

  GstVideoInfo m_input;
  std::deque<Held> m_held;
  std::vector<EventPtr> m_due;
  // The engine reads chroma only while it delivers a frame, so all input frames share one pair of planes.
  CSplitChroma m_chromaIn, m_chromaOut;
  precise::CStabilizer m_engine;
};
