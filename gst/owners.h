#pragma once

#include <gst/video/video.h>
#include <memory>

// Owners of GStreamer's objects.

struct MiniObjectReleaser {
  template <class T>
  void operator()(T* object) const {
    gst_mini_object_unref(GST_MINI_OBJECT_CAST(object));
  }
};
using BufferPtr = std::unique_ptr<GstBuffer, MiniObjectReleaser>;
using CapsPtr = std::unique_ptr<GstCaps, MiniObjectReleaser>;
using EventPtr = std::unique_ptr<GstEvent, MiniObjectReleaser>;

struct ObjectReleaser {
  void operator()(void* object) const { gst_object_unref(object); }
};
using PoolPtr = std::unique_ptr<GstBufferPool, ObjectReleaser>;

/// Maps a frame's planes into memory, and holds a reference to its buffer.
class CMappedFrame {
 public:
  CMappedFrame(const GstVideoInfo& info, GstBuffer* buffer, GstMapFlags access)
      : m_isMapped(gst_video_frame_map(&m_frame, &info, buffer, access)) {}
  ~CMappedFrame() {
    if (m_isMapped) gst_video_frame_unmap(&m_frame);
  }
  CMappedFrame(const CMappedFrame&) = delete;
  CMappedFrame& operator=(const CMappedFrame&) = delete;

  /// False when the buffer holds no such frame. Then nothing else may be called.
  bool IsMapped() const { return m_isMapped; }
  const GstVideoFrame& Frame() const { return m_frame; }
  GstBuffer* Buffer() const { return m_frame.buffer; }

 private:
  GstVideoFrame m_frame = {};
  bool m_isMapped;
};
