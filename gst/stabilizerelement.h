#pragma once

#include <gst/base/gstbasetransform.h>
#include <optional>

#include "gst/framestream.h"
#include "gst/properties.h"

/// The element's behaviour, to which the GObject forwards its virtual methods. The base class calls those
/// about frames, caps and serialized events on the streaming thread, the others on any thread.
class CStabilizerElement {
 public:
  /// `base` must outlive this. `parent` is the base class, whose methods do the usual work.
  CStabilizerElement(GstBaseTransform& base, const GstBaseTransformClass& parent);

  void SetProperty(guint id, const GValue& value);
  void GetProperty(guint id, GValue& value) const;

  void Start();
  void Stop();

  GstCaps* TransformCaps(GstPadDirection direction, GstCaps& caps, GstCaps* filter) const;
  bool SetCaps(GstCaps& in, GstCaps& out);
  bool ProposeAllocation(GstQuery& query) const;
  bool DecideAllocation(GstQuery& query);
  bool KeepsMeta(const GstMeta& meta) const;

  GstFlowReturn Submit(bool isDiscontinuous, GstBuffer* frame);
  GstFlowReturn Generate(GstBuffer** out);
  bool SinkEvent(GstEvent* event);
  bool SourceEvent(GstEvent* event);
  bool Query(GstPadDirection direction, GstQuery& query);

 private:
  class ObjectLock;

  template <class Work>
  bool Try(const Work& work);
  bool Prepare();
  bool TakeOptions();
  void SetLatency();
  BufferPtr Holdable(BufferPtr frame);
  BufferPtr Copy(BufferPtr frame);
  guint BuffersWanted() const;
  GstFlowReturn Take(BufferPtr frame);
  GstFlowReturn Next(GstBuffer** out);
  GstFlowReturn Draw(GstBuffer** out);
  GstFlowReturn Drain();
  void Drop();
  bool SkipsLate(GstBuffer& frame);
  void Post(const GstBuffer& frame, const precise::FrameReport& report);
  GstElement& Element() const { return m_base.element; }

  GstBaseTransform& m_base;
  const GstBaseTransformClass& m_parent;

  // Guarded by the object lock.
  Properties m_properties;
  bool m_hasNewOptions = false;
  Options m_options;  ///< in effect; written by the streaming thread only
  GstClockTime m_latency = 0;
  GstClockTime m_earliest = GST_CLOCK_TIME_NONE;  ///< running time up to which frames come too late
  gdouble m_proportion = 1;

  // Used by the streaming thread only.
  GstVideoInfo m_input = {}, m_output = {};
  StreamFacts m_facts;
  precise::Settings m_settings;
  std::optional<CFrameStream> m_stream;
  PoolPtr m_copies;
  GstClockTime m_firstTime = GST_CLOCK_TIME_NONE, m_interval = GST_CLOCK_TIME_NONE;
  guint64 m_drawn = 0, m_skipped = 0;
  bool m_hasSkipped = false;  ///< a frame, since the last one drawn
};
