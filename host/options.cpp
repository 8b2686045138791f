#include "host/options.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <string_view>
#include <vector>

#include "host/platform.h"
#include "kernel/frame.h"
#include "kernel/pathsmoothing.h"

namespace {

using std::string_literals::operator""s;

template <class Integer>
bool ParseInteger(std::string_view text, Integer& value, int base = 10) {
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, value, base);
  return error == std::errc() && rest == end;
}

/// As many integers as `values` holds, with `separator` between them.
bool ParseList(std::string_view text, char separator, std::span<std::int32_t> values) {
  for (std::size_t i = 0; i < values.size(); ++i) {
    const bool isLast = i + 1 == values.size();
    const std::size_t length = isLast ? text.size() : std::min(text.find(separator), text.size());
    if (!ParseInteger(text.substr(0, length), values[i])) return false;
    if (!isLast) text.remove_prefix(std::min(length + 1, text.size()));
  }
  return true;
}

[[noreturn]] void Refuse(std::string_view option, std::string_view value, const std::string& wanted) {
  throw UsageError(std::string(option) + ' ' + std::string(value) + ": " + wanted);
}

/// The place of `value` in a list of words.
std::int32_t IndexOf(std::string_view option, std::string_view value,
                     std::span<const std::string_view> words) {
  std::string choices;
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (words[i] == value) return static_cast<std::int32_t>(i);
    choices += (i == 0 ? "" : i + 1 == words.size() ? " or " : ", ") + std::string(words[i]);
  }
  Refuse(option, value, "choose " + choices);
}

void SetSize(Options& options, std::string_view name, std::string_view value) {
  std::array<std::int32_t, 2> size = {};
  if (!ParseList(value, 'x', size) || size[0] < 2 || size[1] < 2)
    Refuse(name, value, "give width and height in pixels, each at least 2, such as 1920x1080");
  if (!IsFrameSizeUsable(size[0], size[1]))
    Refuse(name, value,
           "a side has at most " + std::to_string(kMaxFrameSide) + " pixels and a frame at most " +
               std::to_string(std::numeric_limits<std::int32_t>::max()) + " bytes");
  options.size = {size[0], size[1]};
}

void SetWindow(Options& options, std::string_view name, std::string_view value) {
  std::int32_t& window = options.settings.PathSmoothingLevel;
  if (!ParseInteger(value, window) || FindPathWeights(window, false).entries.empty())
    Refuse(name, value, "choose 4, 8, 12, 16, 24, 32, 64 or 128 frames");
}

void SetRotation(Options& options, std::string_view, std::string_view) {
  options.settings.GlobalEstimationCoefficients = static_cast<std::int32_t>(EstimationCoefficients::XYTheta);
}

void SetQuality(Options& options, std::string_view name, std::string_view value) {
  static constexpr std::string_view kQualities[] = {"1", "2", "3", "4"};
  options.settings.GlobalEstimationQuality = IndexOf(name, value, kQualities);
}

void SetRoi(Options& options, std::string_view name, std::string_view value) {
  std::array<std::int32_t, 4> edges = {};
  if (!ParseList(value, ',', edges) || edges[0] >= edges[2] || edges[1] >= edges[3])
    Refuse(name, value, "give left,top,right,bottom in pixels, left below right and top below bottom");
  options.settings.ROI = {edges[0], edges[1], edges[2], edges[3]};
  options.settings.ROIEnabled = true;
}

void SetCrop(Options& options, std::string_view name, std::string_view value) {
  std::array<std::int32_t, 2> margins = {};
  if (!ParseList(value, ',', margins) || margins[0] < 0 || margins[1] < 0)
    Refuse(name, value, "give the left/right and the top/bottom margin in pixels, such as 64,36");
  options.settings.LeftRightCropMargin = margins[0];
  options.settings.TopBottomCropMargin = margins[1];
  options.settings.CropEnabled = true;
}

void SetClip(Options& options, std::string_view name, std::string_view value) {
  static constexpr std::string_view kClippings[] = {"outline", "crop", "stretch"};
  options.settings.ClippingOption = IndexOf(name, value, kClippings);
}

void SetInterpolation(Options& options, std::string_view name, std::string_view value) {
  static constexpr std::string_view kInterpolations[] = {"nearest", "bilinear"};
  options.settings.InterpolationType = IndexOf(name, value, kInterpolations);
}

void SetBackground(Options& options, std::string_view name, std::string_view value) {
  std::uint32_t color = 0;
  if (value.size() != 6 || !ParseInteger(value, color, 16))
    Refuse(name, value, "give red, green and blue as six hexadecimal digits, such as 336699");
  options.settings.BkFillColor = {static_cast<std::uint8_t>(color), static_cast<std::uint8_t>(color >> 8),
                                  static_cast<std::uint8_t>(color >> 16)};
}

[[noreturn]] void RefuseTransform(std::string_view option) {
  throw UsageError(std::string(option) + ": the transform is a Windows module; here the engine is kernel");
}

void SetEngine(Options& options, std::string_view name, std::string_view value) {
  static constexpr std::string_view kEngines[] = {"kernel", "transform"};
  options.engine = static_cast<Engine>(IndexOf(name, value, kEngines));
  if (options.engine == Engine::Transform && !kHasTransform) RefuseTransform("--engine transform");
}

void SetRegistered(Options& options, std::string_view name, std::string_view) {
  if (!kHasTransform) RefuseTransform(name);
  options.registered = true;
}

void SetShowSettings(Options& options, std::string_view name, std::string_view) {
  if (!kHasTransform) RefuseTransform(name);
  options.action = Action::ShowSettings;
}

void SetMotionFile(Options& options, std::string_view name, std::string_view value) {
  if (value.empty()) Refuse(name, value, "give the name of the file to write");
  options.motionFile = value;
}

void SetTotalFrames(Options& options, std::string_view name, std::string_view value) {
  if (!ParseInteger(value, options.totalFrames) || options.totalFrames < 0)
    Refuse(name, value, "give the number of frames that the input holds");
}

void SetSimd(Options& options, std::string_view name, std::string_view value) {
  static constexpr std::string_view kLevels[] = {"scalar", "avx2"};
  options.ops = &SelectOps(DetectCpuFeatures(), static_cast<SimdLevel>(IndexOf(name, value, kLevels)));
}

template <Action action>
void SetAction(Options& options, std::string_view, std::string_view) {
  options.action = action;
}

struct OptionRow {
  std::string_view name;
  std::string_view value;  ///< what the help calls it; empty for an option without a value
  std::string_view help;
  void (*set)(Options& options, std::string_view name, std::string_view value);
};

constexpr OptionRow kOptions[] = {
    {"--size", "WxH", "size of the frames in pixels (required)", SetSize},
    {"--window", "N", "smoothing window in frames: 4, 8, 12, 16, 24, 32, 64, 128 (default 32)", SetWindow},
    {"--rotation", "", "estimate rotation too", SetRotation},
    {"--quality", "1..4", "precision of the motion estimate, 1 finest and slowest (default 3)", SetQuality},
    {"--roi", "L,T,R,B", "estimate from this region only (default the whole frame)", SetRoi},
    {"--crop", "X,Y", "margins left/right and top/bottom in pixels (default none)", SetCrop},
    {"--clip", "HOW", "what the margins do: outline, crop, stretch (default outline)", SetClip},
    {"--interpolation", "HOW", "nearest, bilinear (default bilinear)", SetInterpolation},
    {"--background", "RRGGBB", "fill of uncovered pixels (default 000000)", SetBackground},
    {"--engine", "NAME", kHasTransform ? "transform (default), or kernel without COM" : "kernel (default)",
     SetEngine},
    {"--registered", "", "the transform that is registered, not the one beside the program (Windows)",
     SetRegistered},
    {"--settings", "", "show the transform's property pages, save what is applied, and end (Windows)",
     SetShowSettings},
    {"--motion", "FILE", "write each frame's motion and correction as CSV", SetMotionFile},
    {"--force", "", "overwrite a motion file that exists",
     [](Options& options, auto, auto) { options.overwrite = true; }},
    {"--frames", "N", "number of frames in the input, for the progress bar", SetTotalFrames},
    {"--simd", "LEVEL", "cap on the instruction set: scalar, avx2 (default the best of this machine)",
     SetSimd},
    {"--output-size", "", "check the settings, print the size of the frames that come out, and end",
     SetAction<Action::PrintOutputSize>},
    {"--quiet", "", "no progress bar", [](Options& options, auto, auto) { options.quiet = true; }},
    {"--help", "", "print this text", SetAction<Action::PrintHelp>},
    {"--version", "", "print the version", SetAction<Action::PrintVersion>},
};

/// The transform takes one number for the right and the bottom edge. Gives the region such edges where they
/// mean the same part of the frame; false where none do.
bool ShareFarEdge(Rect& roi, FrameSize size) {
  for (const std::int32_t edge : {roi.right, roi.bottom}) {
    if (std::min(edge, size.width) != std::min(roi.right, size.width) ||
        std::min(edge, size.height) != std::min(roi.bottom, size.height))
      continue;
    roi.right = roi.bottom = edge;
    return true;
  }
  return false;
}

/// The option that only the kernel serves; empty when the transform does as well.
std::string_view KernelOnlyOption(Options& options) {
  if (!options.motionFile.empty()) return "--motion";
  if (options.ops) return "--simd";
  if (!ShareFarEdge(options.settings.ROI, options.size)) return "--roi with these right and bottom edges";
  return {};
}

void ChooseEngine(Options& options) {
  const std::string_view kernelOnly = KernelOnlyOption(options);
  const bool transformWanted = options.registered || options.engine == Engine::Transform;
  if (options.registered && options.engine == Engine::Kernel)
    throw UsageError("--registered: the kernel is not registered; choose --engine transform");
  if (transformWanted && !kernelOnly.empty())
    throw UsageError(std::string(kernelOnly) + ": the transform cannot do that; choose --engine kernel");
  if (!options.engine)
    options.engine = kHasTransform && kernelOnly.empty() ? Engine::Transform : Engine::Kernel;
}

void CheckWhole(Options& options) {
  if (options.size.width == 0) throw UsageError("the frame size is missing: give --size WxH");
  const Rect& roi = options.settings.ROI;
  if (options.settings.ROIEnabled &&
      (roi.right <= 0 || roi.bottom <= 0 || roi.left >= options.size.width || roi.top >= options.size.height))
    throw UsageError("--roi: the region lies outside the " + std::to_string(options.size.width) + "x" +
                     std::to_string(options.size.height) + " frame");
  ChooseEngine(options);
}

}  // namespace

Options ParseOptions(std::span<const char* const> arguments) {
  Options options;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string_view argument = arguments[i];
    const std::size_t equals = argument.find('=');
    const std::string_view name = argument.substr(0, equals);
    const auto* const row = std::ranges::find(kOptions, name, &OptionRow::name);
    if (row == std::end(kOptions))
      throw UsageError("unknown option " + std::string(argument) + "; see --help");

    std::string_view value;
    if (row->value.empty()) {
      if (equals != std::string_view::npos) throw UsageError(std::string(name) + " takes no value");
    } else if (equals != std::string_view::npos) {
      value = argument.substr(equals + 1);
    } else if (++i < arguments.size()) {
      value = arguments[i];
    } else {
      throw UsageError(std::string(name) + " needs a value: " + std::string(row->value));
    }
    row->set(options, name, value);
    if (options.action == Action::PrintHelp || options.action == Action::PrintVersion) return options;
  }
  if (options.action != Action::ShowSettings) CheckWhole(options);
  return options;
}

std::string HelpText() {
  std::string text =
      "usage: vstabilize --size WxH [settings] < in > out\n"
      "\n"
      "Stabilizes raw video: 24-bit blue-green-red frames without padding, top row first\n"
      "(bgr24 rawvideo). As many frames come out as went in.\n"
      "\n"s;
  for (const OptionRow& row : kOptions) {
    std::string left = "  " + std::string(row.name) + ' ' + std::string(row.value);
    left.resize(26, ' ');
    text += left + std::string(row.help) + '\n';
  }
  return text + "\nExit codes: 0 done, 1 the work failed, 2 wrong usage.\n";
}
