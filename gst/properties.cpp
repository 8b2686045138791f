#include "gst/properties.h"

#include <cstdio>
#include <string>

#include "host/settings.h"

namespace {

constexpr auto kFlags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_CONSTRUCT |
                                                 G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING);

GType ClipType() {
  using precise::Clipping;
  static const GEnumValue values[] = {
      {static_cast<int>(Clipping::Stretch), "Magnify what lies inside the margins", "stretch"},
      {static_cast<int>(Clipping::Crop), "Cut the margins off: frames become smaller", "crop"},
      {static_cast<int>(Clipping::Outline), "Draw the margins as a border; edges may show", "outline"},
      {}};
  static const GType type = g_enum_register_static("GstVStabilizeClip", values);
  return type;
}

GType InterpolationType() {
  using precise::Interpolation;
  static const GEnumValue values[] = {
      {static_cast<int>(Interpolation::Nearest), "Nearest sample", "nearest"},
      {static_cast<int>(Interpolation::Bilinear), "Bilinear", "bilinear"},
      {static_cast<int>(Interpolation::Bicubic), "Bicubic, the sharpest", "bicubic"},
      {}};
  static const GType type = g_enum_register_static("GstVStabilizeInterpolation", values);
  return type;
}

std::string BackgroundText(const Options& options) {
  if (options.keepBackground) return "keep";
  const auto& [blue, green, red] = options.background;
  char text[8];
  std::snprintf(text, sizeof text, "%02x%02x%02x", red, green, blue);
  return text;
}

struct Row {
  GParamSpec* (*make)();
  bool isOption;
  void (*set)(Properties& properties, const GValue& value);
  void (*get)(const Properties& properties, GValue& value);
};

// The defaults are those of the program.
constexpr Row kRows[] = {
    {[] {
       return g_param_spec_uint("window", "Window",
                                "Frames that the path is smoothed over, rounded up to an even number; 0: one "
                                "second, within 16 to 64 frames",
                                0, 256, 0, kFlags);
     },
     true,
     [](Properties& properties, const GValue& value) {
       const auto window = static_cast<std::int32_t>((g_value_get_uint(&value) + 1) / 2 * 2);
       properties.options.window = window > 0 ? std::optional(window) : std::nullopt;
     },
     [](const Properties& properties, GValue& value) {
       g_value_set_uint(&value, static_cast<guint>(properties.options.window.value_or(0)));
     }},
    {[] {
       return g_param_spec_double(
           "crop", "Crop",
           "Percent of each side that may be given up, so that no edge shows; 0: edges "
           "may show, and the delay is half as long",
           0, 49, kDefaultCropPercent, kFlags);
     },
     true,
     [](Properties& properties, const GValue& value) {
       const double percent = g_value_get_double(&value);
       properties.options.margins = {percent, percent, true};
     },
     [](const Properties& properties, GValue& value) {
       g_value_set_double(&value, properties.options.margins->x);
     }},
    {[] {
       return g_param_spec_enum("clip", "Clip", "What the margins do", ClipType(),
                                static_cast<int>(precise::Settings{}.clipping), kFlags);
     },
     true,
     [](Properties& properties, const GValue& value) {
       properties.options.clipping = static_cast<precise::Clipping>(g_value_get_enum(&value));
     },
     [](const Properties& properties, GValue& value) {
       g_value_set_enum(&value, static_cast<int>(*properties.options.clipping));
     }},
    {[] {
       return g_param_spec_enum("interpolation", "Interpolation", "How samples between pixels are made",
                                InterpolationType(), static_cast<int>(precise::Settings{}.interpolation),
                                kFlags);
     },
     true,
     [](Properties& properties, const GValue& value) {
       properties.options.interpolation = static_cast<precise::Interpolation>(g_value_get_enum(&value));
     },
     [](const Properties& properties, GValue& value) {
       g_value_set_enum(&value, static_cast<int>(*properties.options.interpolation));
     }},
    {[] {
       return g_param_spec_string("background", "Background",
                                  "Fill of uncovered pixels as RRGGBB, or keep: what was last seen there",
                                  "000000", kFlags);
     },
     true,
     [](Properties& properties, const GValue& value) {
       const char* const text = g_value_get_string(&value);
       const char* const arguments[] = {"--background", text ? text : ""};
       const Options parsed = ParseOptions(arguments);
       properties.options.background = parsed.background;
       properties.options.keepBackground = parsed.keepBackground;
     },
     [](const Properties& properties, GValue& value) {
       g_value_set_string(&value, BackgroundText(properties.options).c_str());
     }},
    {[] {
       return g_param_spec_boolean("rotation", "Rotation", "Correct roll too",
                                   precise::Settings{}.correctRoll, kFlags);
     },
     true,
     [](Properties& properties, const GValue& value) {
       properties.options.rotation = g_value_get_boolean(&value) != FALSE;
     },
     [](const Properties& properties, GValue& value) {
       g_value_set_boolean(&value, *properties.options.rotation);
     }},
    {[] {
       return g_param_spec_boolean("tripod", "Tripod", "Hold still: lay every frame of a shot on its first",
                                   precise::Settings{}.tripod, kFlags);
     },
     true,
     [](Properties& properties, const GValue& value) {
       properties.options.tripod = g_value_get_boolean(&value) != FALSE;
     },
     [](const Properties& properties, GValue& value) {
       g_value_set_boolean(&value, properties.options.tripod);
     }},
    {[] {
       return g_param_spec_boolean("cuts", "Cuts", "Find cuts; otherwise the stream is one shot",
                                   precise::Settings{}.findCuts, kFlags);
     },
     true,
     [](Properties& properties, const GValue& value) {
       properties.options.findCuts = g_value_get_boolean(&value) != FALSE;
     },
     [](const Properties& properties, GValue& value) {
       g_value_set_boolean(&value, properties.options.findCuts);
     }},
    // Overrides the base class's property, which would drop late frames before they are measured.
    {[] {
       return g_param_spec_boolean("qos", "QoS", "Do not draw frames that come too late to be shown",
                                   Properties{}.skipsLate, kFlags);
     },
     false,
     [](Properties& properties, const GValue& value) {
       properties.skipsLate = g_value_get_boolean(&value) != FALSE;
     },
     [](const Properties& properties, GValue& value) { g_value_set_boolean(&value, properties.skipsLate); }},
    {[] {
       return g_param_spec_boolean("post-messages", "Post messages",
                                   "Post an element message for each frame: its shot, motion and correction",
                                   Properties{}.postsMessages, kFlags);
     },
     false,
     [](Properties& properties, const GValue& value) {
       properties.postsMessages = g_value_get_boolean(&value) != FALSE;
     },
     [](const Properties& properties, GValue& value) {
       g_value_set_boolean(&value, properties.postsMessages);
     }},
};

}  // namespace

void InstallProperties(GObjectClass* object) {
  guint id = 0;
  for (const Row& row : kRows) g_object_class_install_property(object, ++id, row.make());
  gst_type_mark_as_plugin_api(ClipType(), {});
  gst_type_mark_as_plugin_api(InterpolationType(), {});
}

bool SetProperty(Properties& properties, guint id, const GValue& value) {
  const Row& row = kRows[id - 1];
  row.set(properties, value);
  return row.isOption;
}

void GetProperty(const Properties& properties, guint id, GValue& value) {
  kRows[id - 1].get(properties, value);
}
