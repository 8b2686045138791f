#pragma once

#include <deque>
#include <vector>

#include "gst/owners.h"
#include "gst/videoformat.h"
#include "precise/stabilizer.h"

/// Frames on their way through the engine, from its first to its last, and the events between them.
class CFrameStream {
 public:
  /// `facts` are those of `input`, and the settings fit them. Throws std::bad_alloc.
  CFrameStream(const GstVideoInfo& input, const GstVideoInfo& output, const StreamFacts& facts,
               const precise::Settings& settings);

  /// Takes a frame and keeps it until it is delivered; false where the buffer holds none.
  bool Push(BufferPtr frame);

  /// Keeps an event, which is due when the newest frame has left.
  void Append(EventPtr event);

  /// No frame follows.
  void End();

  bool HoldsFrames() const { return !m_held.empty(); }
  bool CanDeliver() const { return m_engine.CanDeliver(); }
  GstBuffer* Oldest() const { return m_held.front().frame.Buffer(); }

  /// Draws the oldest frame, stabilized, and gives it back.
  precise::FrameReport Deliver(const GstVideoFrame& out);

  /// Gives the oldest frame back and draws nothing. Its motion counts as that of any other.
  precise::FrameReport Skip();

  /// The events of frames that have left.
  std::vector<EventPtr> TakeDueEvents();

  /// All events, as those that were flushed.
  std::vector<EventPtr> TakeAllEvents();

 private:
  struct Held {
    Held(const GstVideoInfo& info, GstBuffer* buffer) : frame(info, buffer, GST_MAP_READ) {}
    CMappedFrame frame;
    std::vector<EventPtr> behind;
  };

  void GiveBack();

  GstVideoInfo m_input;
  std::deque<Held> m_held;
  std::vector<EventPtr> m_due;
  // Chroma is read when a frame is delivered, so all frames of a kind share one place for it.
  CSplitChroma m_chromaIn, m_chromaOut;
  precise::CStabilizer m_engine;
};
