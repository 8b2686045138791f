#include "gst/stabilizerelement.h"

#include <algorithm>
#include <new>
#include <utility>

#include "host/motionlog.h"

GST_DEBUG_CATEGORY_STATIC(g_category);
#define GST_CAT_DEFAULT g_category

namespace {

// Buffers of a pool that other elements may hold, beside those held here.
constexpr guint kBuffersForOthers = 3;
// Assumed for streams that do not tell their rate, until the second frame comes.
constexpr GstClockTime kUsualInterval = 40 * GST_MSECOND;

/// Changes the size in caps to that on the element's other side, where `clip=crop` makes frames smaller.
/// Without a fixed size, and from the source side, any size is possible.
void SetSizeBehindCrop(const Options& options, GstPadDirection direction, GstStructure& structure) {
  const CapsPtr caps(gst_caps_new_full(gst_structure_copy(&structure), nullptr));
  if (direction == GST_PAD_SINK && gst_caps_is_fixed(caps.get())) {
    const StreamFacts facts = FactsOf(InfoOf(*caps));
    const precise::PictureFormat format =
        precise::OutputFormat(facts.format, MakePreciseSettings(options, facts));
    gst_structure_set(&structure, "width", G_TYPE_INT, format.width, "height", G_TYPE_INT, format.height,
                      nullptr);
    return;
  }
  for (const char* const side : {"width", "height"})
    gst_structure_set(&structure, side, GST_TYPE_INT_RANGE, 1, precise::kLargestSide, nullptr);
}

}  // namespace

class CStabilizerElement::ObjectLock {
 public:
  explicit ObjectLock(const CStabilizerElement& element) : m_element(element) {
    GST_OBJECT_LOCK(&m_element.m_base);
  }
  ~ObjectLock() { GST_OBJECT_UNLOCK(&m_element.m_base); }
  ObjectLock(const ObjectLock&) = delete;
  ObjectLock& operator=(const ObjectLock&) = delete;

 private:
  const CStabilizerElement& m_element;
};

CStabilizerElement::CStabilizerElement(GstBaseTransform& base, const GstBaseTransformClass& parent)
    : m_base(base), m_parent(parent) {
  GST_DEBUG_CATEGORY_INIT(g_category, "vstabilize", 0, "video stabilizer");
}

void CStabilizerElement::SetProperty(guint id, const GValue& value) {
  try {
    const ObjectLock lock(*this);
    if (::SetProperty(m_properties, id, value)) m_hasNewOptions = true;
  } catch (const UsageError& error) {
    g_warning("vstabilize: %s", error.what());
  }
}

void CStabilizerElement::GetProperty(guint id, GValue& value) const {
  const ObjectLock lock(*this);
  ::GetProperty(m_properties, id, value);
}

void CStabilizerElement::Start() {
  const ObjectLock lock(*this);
  m_hasNewOptions = false;
  m_options = m_properties.options;
  m_latency = 0;
  m_earliest = GST_CLOCK_TIME_NONE;
  m_proportion = 1;
  m_drawn = m_skipped = 0;
}

void CStabilizerElement::Stop() {
  Drop();
  m_copies.reset();
  m_input = m_output = {};
}

/// Runs work that may throw. Returns false, and posts an error message, when it throws.
template <class Work>
bool CStabilizerElement::Try(const Work& work) {
  try {
    work();
    return true;
  } catch (const UsageError& error) {
    GST_ELEMENT_ERROR(&m_base, STREAM, FORMAT, ("These frames cannot be stabilized with these settings."),
                      ("%s", error.what()));
  } catch (const std::bad_alloc&) {
    GST_ELEMENT_ERROR(&m_base, RESOURCE, NO_SPACE_LEFT,
                      ("Not enough memory for the frames of a window; a shorter window needs less."),
                      (nullptr));
  }
  return false;
}

/// Makes the engine's settings from caps and options. No frame may be held.
bool CStabilizerElement::Prepare() {
  const bool isDone = Try([this] {
    m_facts = FactsOf(m_input);
    m_settings = MakePreciseSettings(m_options, m_facts);
  });
  m_copies.reset();
  if (isDone) SetLatency();
  return isDone;
}

void CStabilizerElement::SetLatency() {
  const auto delay = static_cast<guint64>(precise::DelayFrames(m_facts.format, m_settings));
  const GstClockTime interval = GST_CLOCK_TIME_IS_VALID(m_interval) ? m_interval : kUsualInterval;
  const GstClockTime latency =
      m_facts.rateNumerator > 0
          ? gst_util_uint64_scale(delay * GST_SECOND, static_cast<guint64>(m_facts.rateDenominator),
                                  static_cast<guint64>(m_facts.rateNumerator))
          : delay * interval;
  {
    const ObjectLock lock(*this);
    if (std::exchange(m_latency, latency) == latency) return;
  }
  gst_element_post_message(&Element(), gst_message_new_latency(GST_OBJECT(&m_base)));
}

GstCaps* CStabilizerElement::TransformCaps(GstPadDirection direction, GstCaps& caps, GstCaps* filter) const {
  const Options options = [this] {
    const ObjectLock lock(*this);
    return m_options;
  }();
  CapsPtr result(gst_caps_copy(&caps));
  try {
    for (guint i = 0; options.clipping == precise::Clipping::Crop && i < gst_caps_get_size(result.get()); ++i)
      SetSizeBehindCrop(options, direction, *gst_caps_get_structure(result.get(), i));
  } catch (const UsageError&) {
    // SetCaps reports the error when such caps are set.
  }
  if (filter) result.reset(gst_caps_intersect_full(filter, result.get(), GST_CAPS_INTERSECT_FIRST));
  return result.release();
}

bool CStabilizerElement::SetCaps(GstCaps& in, GstCaps& out) {
  Drain();
  m_input = InfoOf(in);
  m_output = InfoOf(out);
  m_interval = GST_CLOCK_TIME_NONE;
  return Prepare();
}

guint CStabilizerElement::BuffersWanted() const {
  return static_cast<guint>(precise::DelayFrames(m_facts.format, m_settings)) + 1 + kBuffersForOthers;
}

bool CStabilizerElement::ProposeAllocation(GstQuery& query) const {
  GstCaps* caps = nullptr;
  gboolean needsPool = FALSE;
  gst_query_parse_allocation(&query, &caps, &needsPool);
  if (!caps) return false;
  const GstVideoInfo info = InfoOf(*caps);
  PoolPtr pool(needsPool ? gst_video_buffer_pool_new() : nullptr);
  const auto size = static_cast<guint>(info.size);
  if (pool) {
    GstStructure* const config = gst_buffer_pool_get_config(pool.get());
    gst_buffer_pool_config_set_params(config, caps, size, BuffersWanted(), 0);
    gst_buffer_pool_config_add_option(config, GST_BUFFER_POOL_OPTION_VIDEO_META);
    if (!gst_buffer_pool_set_config(pool.get(), config)) return false;
  }
  gst_query_add_allocation_pool(&query, pool.get(), size, BuffersWanted(), 0);
  gst_query_add_allocation_meta(&query, GST_VIDEO_META_API_TYPE, nullptr);
  return true;
}

/// Uses the pool that downstream offers, or a new one.
bool CStabilizerElement::DecideAllocation(GstQuery& query) {
  GstCaps* caps = nullptr;
  gst_query_parse_allocation(&query, &caps, nullptr);
  GstBufferPool* offered = nullptr;
  guint size = 0, least = 0, most = 0;
  const bool hasOffer = gst_query_get_n_allocation_pools(&query) > 0;
  if (hasOffer) gst_query_parse_nth_allocation_pool(&query, 0, &offered, &size, &least, &most);
  const PoolPtr pool(offered ? offered : gst_video_buffer_pool_new());
  size = std::max(size, static_cast<guint>(m_output.size));
  if (gst_query_find_allocation_meta(&query, GST_VIDEO_META_API_TYPE, nullptr)) {
    GstStructure* const config = gst_buffer_pool_get_config(pool.get());
    gst_buffer_pool_config_set_params(config, caps, size, least, most);
    gst_buffer_pool_config_add_option(config, GST_BUFFER_POOL_OPTION_VIDEO_META);
    gst_buffer_pool_set_config(pool.get(), config);
  }
  if (hasOffer)
    gst_query_set_nth_allocation_pool(&query, 0, pool.get(), size, least, most);
  else
    gst_query_add_allocation_pool(&query, pool.get(), size, least, most);
  return m_parent.decide_allocation(&m_base, &query);
}

/// Metas that tell places in the frame are dropped where cropping changes the places.
bool CStabilizerElement::KeepsMeta(const GstMeta& meta) const {
  const bool keepsSize = m_input.width == m_output.width && m_input.height == m_output.height;
  return keepsSize ||
         !gst_meta_api_type_has_tag(meta.info->api, g_quark_from_static_string(GST_META_TAG_VIDEO_SIZE_STR));
}

/// Puts new property values into effect: draws all frames held, then makes new settings.
bool CStabilizerElement::TakeOptions() {
  {
    const ObjectLock lock(*this);
    if (!m_hasNewOptions) return true;
  }
  Drain();
  {
    const ObjectLock lock(*this);
    m_hasNewOptions = false;
    m_options = m_properties.options;
  }
  // The size of the output may have changed.
  gst_base_transform_reconfigure_src(&m_base);
  return m_input.width == 0 || Prepare();
}

GstFlowReturn CStabilizerElement::Submit(bool isDiscontinuous, GstBuffer* frame) {
  BufferPtr taken(frame);
  // `isDiscontinuous` is of no use: the base class keeps it set until the first frame leaves.
  if (GST_BUFFER_IS_DISCONT(frame)) Drain();
  if (!TakeOptions()) return GST_FLOW_ERROR;
  return m_parent.submit_input_buffer(&m_base, isDiscontinuous, taken.release());
}

GstFlowReturn CStabilizerElement::Generate(GstBuffer** out) {
  *out = nullptr;
  if (m_base.queued_buf) {
    const GstFlowReturn flow = Take(BufferPtr(std::exchange(m_base.queued_buf, nullptr)));
    if (flow != GST_FLOW_OK) return flow;
  }
  return Next(out);
}

/// The frame, or a copy when its pool has too few buffers for frames to be held.
BufferPtr CStabilizerElement::Holdable(BufferPtr frame) {
  if (!frame->pool) return frame;
  guint most = 0;
  GstStructure* const config = gst_buffer_pool_get_config(frame->pool);
  gst_buffer_pool_config_get_params(config, nullptr, nullptr, nullptr, &most);
  gst_structure_free(config);
  return most == 0 || most >= BuffersWanted() ? std::move(frame) : Copy(std::move(frame));
}

/// Null on failure.
BufferPtr CStabilizerElement::Copy(BufferPtr frame) {
  if (!m_copies) {
    m_copies.reset(gst_video_buffer_pool_new());
    GstStructure* const config = gst_buffer_pool_get_config(m_copies.get());
    const CapsPtr caps(gst_video_info_to_caps(&m_input));
    gst_buffer_pool_config_set_params(config, caps.get(), static_cast<guint>(m_input.size), 0, 0);
    if (!gst_buffer_pool_set_config(m_copies.get(), config) ||
        !gst_buffer_pool_set_active(m_copies.get(), TRUE))
      return nullptr;
  }
  GstBuffer* copy = nullptr;
  if (gst_buffer_pool_acquire_buffer(m_copies.get(), &copy, nullptr) != GST_FLOW_OK) return nullptr;
  BufferPtr held(copy);
  {
    const CMappedFrame from(m_input, frame.get(), GST_MAP_READ), to(m_input, copy, GST_MAP_WRITE);
    GstVideoFrame target = to.Frame();
    if (!from.IsMapped() || !to.IsMapped() || !gst_video_frame_copy(&target, &from.Frame())) return nullptr;
  }
  // Mapped, it could not be written to.
  if (!m_parent.copy_metadata(&m_base, frame.get(), copy)) return nullptr;
  return held;
}

GstFlowReturn CStabilizerElement::Take(BufferPtr frame) {
  if (m_facts.rateNumerator == 0 && !GST_CLOCK_TIME_IS_VALID(m_interval)) {
    const GstClockTime time = GST_BUFFER_PTS(frame.get()), first = std::exchange(m_firstTime, time);
    if (GST_CLOCK_TIME_IS_VALID(first) && GST_CLOCK_TIME_IS_VALID(time) && time > first) {
      m_interval = time - first;
      SetLatency();
    }
  }
  bool isTaken = false;
  const bool isDone = Try([&] {
    if (!m_stream) m_stream.emplace(m_input, m_output, m_facts, m_settings);
    frame = Holdable(std::move(frame));
    isTaken = frame && m_stream->Push(std::move(frame));
  });
  if (!isDone) return GST_FLOW_ERROR;
  if (!isTaken) {
    GST_ELEMENT_ERROR(&m_base, STREAM, FORMAT, ("A buffer does not hold a frame as its caps describe it."),
                      (nullptr));
    return GST_FLOW_ERROR;
  }
  return GST_FLOW_OK;
}

/// Gives the next drawn frame in `out`; null when none is ready. Events that are due before it go downstream.
GstFlowReturn CStabilizerElement::Next(GstBuffer** out) {
  *out = nullptr;
  while (m_stream) {
    for (EventPtr& event : m_stream->TakeDueEvents()) m_parent.sink_event(&m_base, event.release());
    if (!m_stream->CanDeliver()) break;
    GstBuffer& oldest = *m_stream->Oldest();
    if (!SkipsLate(oldest)) return Draw(out);
    const BufferPtr frame(gst_buffer_ref(&oldest));
    Post(oldest, m_stream->Skip());
  }
  return GST_FLOW_OK;
}

GstFlowReturn CStabilizerElement::Draw(GstBuffer** out) {
  const BufferPtr frame(gst_buffer_ref(m_stream->Oldest()));
  GstBuffer* made = nullptr;
  const GstFlowReturn flow = m_parent.prepare_output_buffer(&m_base, frame.get(), &made);
  if (flow != GST_FLOW_OK) return flow;
  BufferPtr drawn(made);
  precise::FrameReport report;
  {
    const CMappedFrame mapped(m_output, made, GST_MAP_WRITE);
    if (!mapped.IsMapped()) {
      GST_ELEMENT_ERROR(&m_base, RESOURCE, WRITE, ("Downstream's memory cannot be written."), (nullptr));
      return GST_FLOW_ERROR;
    }
    report = m_stream->Deliver(mapped.Frame());
  }
  ++m_drawn;
  if (std::exchange(m_hasSkipped, false)) GST_BUFFER_FLAG_SET(made, GST_BUFFER_FLAG_DISCONT);
  Post(*frame, report);
  *out = drawn.release();
  return GST_FLOW_OK;
}

/// Draws all frames held and sends them and their events downstream. The next frame begins a new path.
GstFlowReturn CStabilizerElement::Drain() {
  m_firstTime = GST_CLOCK_TIME_NONE;
  if (!m_stream) return GST_FLOW_OK;
  m_stream->End();
  GstFlowReturn flow = GST_FLOW_OK;
  for (GstBuffer* out = nullptr; flow == GST_FLOW_OK && Next(&out) == GST_FLOW_OK && out;)
    flow = gst_pad_push(m_base.srcpad, out);
  for (EventPtr& event : m_stream->TakeAllEvents()) m_parent.sink_event(&m_base, event.release());
  m_stream.reset();
  return flow;
}

/// Drops all frames held. Of their events, the sticky ones are kept on the source pad.
void CStabilizerElement::Drop() {
  m_firstTime = GST_CLOCK_TIME_NONE;
  m_hasSkipped = false;
  if (!m_stream) return;
  for (const EventPtr& event : m_stream->TakeAllEvents())
    if (GST_EVENT_IS_STICKY(event.get())) gst_pad_store_sticky_event(m_base.srcpad, event.get());
  m_stream.reset();
}

bool CStabilizerElement::SinkEvent(GstEvent* event) {
  EventPtr taken(event);
  switch (GST_EVENT_TYPE(event)) {
    case GST_EVENT_FLUSH_STOP: {
      Drop();
      const ObjectLock lock(*this);
      m_earliest = GST_CLOCK_TIME_NONE;
      break;
    }
    case GST_EVENT_CAPS:
      if (!TakeOptions()) return false;
      break;
    case GST_EVENT_STREAM_START:
    case GST_EVENT_SEGMENT:
    case GST_EVENT_GAP:
    case GST_EVENT_SEGMENT_DONE:
    case GST_EVENT_EOS:
      Drain();
      break;
    default:
      if (!GST_EVENT_IS_SERIALIZED(event) || !m_stream || !m_stream->HoldsFrames()) break;
      m_stream->Append(std::move(taken));
      return true;
  }
  return m_parent.sink_event(&m_base, taken.release());
}

bool CStabilizerElement::SourceEvent(GstEvent* event) {
  if (GST_EVENT_TYPE(event) == GST_EVENT_QOS) {
    GstClockTimeDiff lateness = 0;
    GstClockTime time = GST_CLOCK_TIME_NONE;
    const ObjectLock lock(*this);
    gst_event_parse_qos(event, nullptr, &m_proportion, &lateness, &time);
    // Skips for twice the lateness, as decoders do, to catch up.
    const GstClockTimeDiff ahead = lateness > 0 ? 2 * lateness : lateness;
    const bool isKnown = GST_CLOCK_TIME_IS_VALID(time) && (ahead >= 0 || time > static_cast<guint64>(-ahead));
    m_earliest = isKnown ? time + static_cast<guint64>(ahead) : GST_CLOCK_TIME_NONE;
  }
  return m_parent.src_event(&m_base, event);
}

/// True when the frame would come too late; the application then gets a QoS message.
bool CStabilizerElement::SkipsLate(GstBuffer& frame) {
  const GstSegment& segment = m_base.segment;
  if (segment.format != GST_FORMAT_TIME) return false;
  const GstClockTime time = GST_BUFFER_PTS(&frame);
  const GstClockTime running = gst_segment_to_running_time(&segment, GST_FORMAT_TIME, time);
  GstClockTimeDiff lateness = 0;
  gdouble proportion = 1;
  {
    const ObjectLock lock(*this);
    if (!m_properties.skipsLate || !GST_CLOCK_TIME_IS_VALID(m_earliest) ||
        !GST_CLOCK_TIME_IS_VALID(running) || running > m_earliest)
      return false;
    lateness = GST_CLOCK_DIFF(running, m_earliest);
    proportion = m_proportion;
  }
  ++m_skipped;
  m_hasSkipped = true;
  GstMessage* const message = gst_message_new_qos(GST_OBJECT(&m_base), FALSE, running,
                                                  gst_segment_to_stream_time(&segment, GST_FORMAT_TIME, time),
                                                  time, GST_BUFFER_DURATION(&frame));
  gst_message_set_qos_values(message, lateness, proportion, 1'000'000);
  gst_message_set_qos_stats(message, GST_FORMAT_BUFFERS, m_drawn, m_skipped);
  gst_element_post_message(&Element(), message);
  return true;
}

void CStabilizerElement::Post(const GstBuffer& frame, const precise::FrameReport& report) {
  {
    const ObjectLock lock(*this);
    if (!m_properties.postsMessages) return;
  }
  const precise::FrameReport logged = AsLogged(report);
  const GstSegment& segment = m_base.segment;
  const GstClockTime time = GST_BUFFER_PTS(&frame);
  GstStructure* const structure = gst_structure_new(
      "vstabilize", "timestamp", G_TYPE_UINT64, time, "stream-time", G_TYPE_UINT64,
      gst_segment_to_stream_time(&segment, GST_FORMAT_TIME, time), "running-time", G_TYPE_UINT64,
      gst_segment_to_running_time(&segment, GST_FORMAT_TIME, time), "duration", G_TYPE_UINT64,
      GST_BUFFER_DURATION(&frame), "frame", G_TYPE_INT64, logged.frame, "shot", G_TYPE_INT64, logged.shot,
      "motion-x", G_TYPE_DOUBLE, logged.motion.x, "motion-y", G_TYPE_DOUBLE, logged.motion.y, "motion-theta",
      G_TYPE_DOUBLE, logged.motion.roll, "zoom", G_TYPE_DOUBLE, logged.zoom, "correction-x", G_TYPE_DOUBLE,
      logged.correction.x, "correction-y", G_TYPE_DOUBLE, logged.correction.y, "correction-theta",
      G_TYPE_DOUBLE, logged.correction.roll, nullptr);
  gst_element_post_message(&Element(), gst_message_new_element(GST_OBJECT(&m_base), structure));
}

bool CStabilizerElement::Query(GstPadDirection direction, GstQuery& query) {
  // Upstream wants its buffers back.
  if (GST_QUERY_TYPE(&query) == GST_QUERY_DRAIN && direction == GST_PAD_SINK) Drain();
  if (GST_QUERY_TYPE(&query) != GST_QUERY_LATENCY || direction != GST_PAD_SRC)
    return m_parent.query(&m_base, direction, &query);

  if (!gst_pad_peer_query(m_base.sinkpad, &query)) return false;
  gboolean isLive = FALSE;
  GstClockTime least = 0, most = 0;
  gst_query_parse_latency(&query, &isLive, &least, &most);
  const ObjectLock lock(*this);
  least += m_latency;
  if (GST_CLOCK_TIME_IS_VALID(most)) most += m_latency;
  gst_query_set_latency(&query, isLive, least, most);
  return true;
}
