#include "gst/element.h"

#include "gst/stabilizerelement.h"

namespace {

struct VStabilize {
  GstBaseTransform base;
  CStabilizerElement* element;
};
struct VStabilizeClass {
  GstBaseTransformClass base;
};

GstBaseTransformClass* g_parent = nullptr;

CStabilizerElement& Of(void* instance) { return *static_cast<VStabilize*>(instance)->element; }

void AddPadTemplate(GstElementClass& element, const char* name, GstPadDirection direction) {
  const CapsPtr caps(gst_caps_from_string(kRawVideo));
  gst_element_class_add_pad_template(&element,
                                     gst_pad_template_new(name, direction, GST_PAD_ALWAYS, caps.get()));
}

void InitObject(GObjectClass& object) {
  object.set_property = [](GObject* instance, guint id, const GValue* value, GParamSpec*) {
    Of(instance).SetProperty(id, *value);
  };
  object.get_property = [](GObject* instance, guint id, GValue* value, GParamSpec*) {
    Of(instance).GetProperty(id, *value);
  };
  object.finalize = [](GObject* instance) {
    delete &Of(instance);
    G_OBJECT_CLASS(g_parent)->finalize(instance);
  };
  InstallProperties(&object);
}

void InitTransform(GstBaseTransformClass& transform) {
  transform.start = [](GstBaseTransform* base) -> gboolean {
    Of(base).Start();
    return TRUE;
  };
  transform.stop = [](GstBaseTransform* base) -> gboolean {
    Of(base).Stop();
    return TRUE;
  };
  transform.transform_caps = [](GstBaseTransform* base, GstPadDirection direction, GstCaps* caps,
                                GstCaps* filter) { return Of(base).TransformCaps(direction, *caps, filter); };
  transform.set_caps = [](GstBaseTransform* base, GstCaps* in, GstCaps* out) -> gboolean {
    return Of(base).SetCaps(*in, *out);
  };
  transform.propose_allocation = [](GstBaseTransform* base, GstQuery*, GstQuery* query) -> gboolean {
    return Of(base).ProposeAllocation(*query);
  };
  transform.decide_allocation = [](GstBaseTransform* base, GstQuery* query) -> gboolean {
    return Of(base).DecideAllocation(*query);
  };
  transform.transform_meta = [](GstBaseTransform* base, GstBuffer*, GstMeta* meta, GstBuffer*) -> gboolean {
    return Of(base).KeepsMeta(*meta);
  };
  transform.submit_input_buffer = [](GstBaseTransform* base, gboolean isDiscontinuous, GstBuffer* frame) {
    return Of(base).Submit(isDiscontinuous != FALSE, frame);
  };
  transform.generate_output = [](GstBaseTransform* base, GstBuffer** out) { return Of(base).Generate(out); };
  transform.sink_event = [](GstBaseTransform* base, GstEvent* event) -> gboolean {
    return Of(base).SinkEvent(event);
  };
  transform.src_event = [](GstBaseTransform* base, GstEvent* event) -> gboolean {
    return Of(base).SourceEvent(event);
  };
  transform.query = [](GstBaseTransform* base, GstPadDirection direction, GstQuery* query) -> gboolean {
    return Of(base).Query(direction, *query);
  };
  // Never called, as `generate_output` draws. But without it the base class would pass frames through.
  transform.transform = [](GstBaseTransform*, GstBuffer*, GstBuffer*) { return GST_FLOW_ERROR; };
}

void InitClass(void* self, void*) {
  g_parent = GST_BASE_TRANSFORM_CLASS(g_type_class_peek_parent(self));
  InitObject(*G_OBJECT_CLASS(self));
  InitTransform(*GST_BASE_TRANSFORM_CLASS(self));
  GstElementClass& element = *GST_ELEMENT_CLASS(self);
  AddPadTemplate(element, "sink", GST_PAD_SINK);
  AddPadTemplate(element, "src", GST_PAD_SRC);
  gst_element_class_set_static_metadata(
      &element, "Video stabilizer", "Filter/Effect/Video",
      "Takes the shake out of video in one pass; the delay is half a window, or a whole one with margins",
      "vstabilize");
}

void InitInstance(GTypeInstance* self, void*) {
  auto& instance = *static_cast<VStabilize*>(static_cast<void*>(self));
  instance.element = new CStabilizerElement(instance.base, *g_parent);
}

GType ElementType() {
  static const GType type =
      g_type_register_static_simple(GST_TYPE_BASE_TRANSFORM, "GstVStabilize", sizeof(VStabilizeClass),
                                    InitClass, sizeof(VStabilize), InitInstance, GTypeFlags{});
  return type;
}

}  // namespace

gboolean RegisterElement(GstPlugin* plugin) {
  return gst_element_register(plugin, "vstabilize", GST_RANK_NONE, ElementType());
}
