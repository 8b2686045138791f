#pragma once

#include <gst/video/video.h>
#include <memory>

// Owners of the library's objects.

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

/// A frame's planes in memory. Refers to its buffer as long as it lives.
class CMappedFrame {
 public:
  CMappedFrame(const GstVideoInfo& info, GstBuffer* buffer, GstMapFlags access)
      : m_isMapped(gst_video_frame_map(&m_frame, &info, buffer, access)) {}
  ~CMappedFrame() {
    if (m_isMapped) gst_video_frame_unmap(&m_frame);
  }
  CMappedFrame(const CMappedFrame&) = delete;
  CMappedFrame& operator=(const CMappedFrame&) = delete;

  /// False where the buffer holds no such frame; nothing else may be called then.
  bool IsMapped() const { return m_isMapped; }
  const GstVideoFrame& Frame() const { return m_frame; }
  GstBuffer* Buffer() const { return m_frame.buffer; }

 private:
  GstVideoFrame m_frame = {};
  bool m_isMapped;
};
