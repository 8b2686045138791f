#include "host/options.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <numeric>
#include <vector>

#include "host/platform.h"
#include "host/settings.h"
#include "kernel/frame.h"

namespace {

using std::string_literals::operator""s;

constexpr std::string_view kEngines[] = {"precise", "kernel", "transform"};

template <class Number>
bool ParseNumber(std::string_view text, Number& value) {
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, value);
  return error == std::errc() && rest == end;
}

bool ParseHexadecimal(std::string_view text, std::uint32_t& value) {
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, value, 16);
  return error == std::errc() && rest == end;
}

/// As many integers as `values` holds, with `separator` between them.
bool ParseList(std::string_view text, char separator, std::span<std::int32_t> values) {
  for (std::size_t i = 0; i < values.size(); ++i) {
    const bool isLast = i + 1 == values.size();
    const std::size_t length = isLast ? text.size() : std::min(text.find(separator), text.size());
    if (!ParseNumber(text.substr(0, length), values[i])) return false;
    if (!isLast) text.remove_prefix(std::min(length + 1, text.size()));
  }
  return true;
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
  std::int32_t window = 0;
  if (!ParseNumber(value, window)) Refuse(name, value, "give a number of frames");
  options.window = window;
}

void SetQuality(Options& options, std::string_view name, std::string_view value) {
  static constexpr std::string_view kQualities[] = {"1", "2", "3", "4"};
  options.quality = IndexOf(name, value, kQualities);
}

void SetRoi(Options& options, std::string_view name, std::string_view value) {
  std::array<std::int32_t, 4> edges = {};
  if (!ParseList(value, ',', edges) || edges[0] >= edges[2] || edges[1] >= edges[3])
    Refuse(name, value, "give left,top,right,bottom in pixels, left below right and top below bottom");
  options.roi = {edges[0], edges[1], edges[2], edges[3]};
}

void SetPercentCrop(Options& options, std::string_view name, std::string_view value) {
  double percent = 0;
  if (!ParseNumber(value.substr(0, value.size() - 1), percent) || !(percent >= 0 && percent < 50))
    Refuse(name, value, "give a percentage of each side, from 0% to less than 50%");
  options.margins = {percent, percent, true};
}

void SetCrop(Options& options, std::string_view name, std::string_view value) {
  if (value.ends_with('%')) return SetPercentCrop(options, name, value);
  std::array<std::int32_t, 2> margins = {};
  if (value != "0" && (!ParseList(value, ',', margins) || margins[0] < 0 || margins[1] < 0))
    Refuse(name, value,
           "give each side's margin in percent, such as 5%, or the left/right and the top/bottom one in "
           "pixels, such as 64,36; 0 is none");
  options.margins = {static_cast<double>(margins[0]), static_cast<double>(margins[1])};
}

void SetClip(Options& options, std::string_view name, std::string_view value) {
  static constexpr std::string_view kClippings[] = {"stretch", "crop", "outline"};
  options.clipping = static_cast<precise::Clipping>(IndexOf(name, value, kClippings));
}

void SetInterpolation(Options& options, std::string_view name, std::string_view value) {
  static constexpr std::string_view kInterpolations[] = {"nearest", "bilinear", "bicubic"};
  options.interpolation = static_cast<precise::Interpolation>(IndexOf(name, value, kInterpolations));
}

void SetBackground(Options& options, std::string_view name, std::string_view value) {
  options.keepBackground = value == "keep";
  std::uint32_t color = 0;
  if (!options.keepBackground && (value.size() != 6 || !ParseHexadecimal(value, color)))
    Refuse(name, value, "give red, green and blue as six hexadecimal digits, such as 336699, or keep");
  options.background = {static_cast<std::uint8_t>(color), static_cast<std::uint8_t>(color >> 8),
                        static_cast<std::uint8_t>(color >> 16)};
}

void SetMotionFile(Options& options, std::string_view name, std::string_view value) {
  if (value.empty()) Refuse(name, value, "give the name of the file to write");
  options.motionFile = value;
}

void SetTotalFrames(Options& options, std::string_view name, std::string_view value) {
  if (!ParseNumber(value, options.totalFrames) || options.totalFrames < 0)
    Refuse(name, value, "give the number of frames that the input holds");
}

void SetSimd(Options& options, std::string_view name, std::string_view value) {
  static constexpr std::string_view kLevels[] = {"scalar", "avx2"};
  options.simd = static_cast<SimdLevel>(IndexOf(name, value, kLevels));
}

void RequireTransform(std::string_view option) {
  if (!kHasTransform)
    throw UsageError(std::string(option) +
                     ": the transform is a Windows module; here the engine is precise or kernel");
}

void SetEngine(Options& options, std::string_view name, std::string_view value) {
  options.engine = static_cast<Engine>(IndexOf(name, value, kEngines));
  if (options.engine == Engine::Transform) RequireTransform("--engine transform");
}

void SetRegistered(Options& options, std::string_view name, std::string_view) {
  RequireTransform(name);
  options.registered = true;
}

void SetShowSettings(Options& options, std::string_view name, std::string_view) {
  RequireTransform(name);
  options.action = Action::ShowSettings;
}

template <Action action>
void SetAction(Options& options, std::string_view, std::string_view) {
  options.action = action;
}

template <auto member, auto content = true>
void Set(Options& options, std::string_view, std::string_view) {
  options.*member = content;
}

constexpr unsigned Bit(Engine engine) { return 1U << static_cast<unsigned>(engine); }

constexpr unsigned kPrecise = Bit(Engine::Precise), kKernel = Bit(Engine::Kernel),
                   kTransform = Bit(Engine::Transform), kClassic = kKernel | kTransform,
                   kAll = kPrecise | kClassic;

struct OptionRow {
  std::string_view name;
  std::string_view value;  ///< what the help calls it; empty for an option without a value
  unsigned engines;        ///< those that have it
  std::string_view help;
  void (*set)(Options& options, std::string_view name, std::string_view value);
};

// In the help a line break stands before what differs between the engines.
constexpr OptionRow kOptions[] = {
    {"--size", "WxH", kClassic, "size of raw frames in pixels; without it the input is YUV4MPEG2", SetSize},
    {"--engine", "NAME", kAll, "precise, kernel (classic)\nor on Windows transform (classic, through COM)",
     SetEngine},
    {"--window", "N", kAll,
     "smoothing window in frames\nprecise: even, 2 to 256 (default one second, 16 to 64)\n"
     "classic: 4, 8, 12, 16, 24, 32, 64, 128 (default 32)",
     SetWindow},
    {"--crop", "P%|X,Y", kAll,
     "margins of each side, in percent, or left/right and top/bottom in pixels\n"
     "(default precise: 5%; classic: 0, none)",
     SetCrop},
    {"--clip", "HOW", kAll,
     "what the margins do: stretch, crop, outline\n(default precise: stretch; classic: outline)", SetClip},
    {"--interpolation", "HOW", kAll,
     "nearest, bilinear, bicubic\n(default precise: bicubic; classic, which has no bicubic: bilinear)",
     SetInterpolation},
    {"--background", "RRGGBB", kAll,
     "fill of uncovered pixels (default 000000)\nor keep, what was last seen there (precise)", SetBackground},
    {"--rotation", "", kAll, "correct roll too (default of precise)", Set<&Options::rotation>},
    {"--no-rotation", "", kAll, "do not correct roll (default of classic)", Set<&Options::rotation, false>},
    {"--tripod", "", kPrecise, "hold still: lay every frame of a shot on its first (precise)",
     Set<&Options::tripod>},
    {"--no-cuts", "", kPrecise, "take the clip as one shot (precise)", Set<&Options::findCuts, false>},
    {"--roi", "L,T,R,B", kAll, "estimate from this region only (default the whole frame)", SetRoi},
    {"--quality", "1..4", kClassic,
     "precision of the motion estimate, 1 finest and slowest (classic; default 3)", SetQuality},
    {"--motion", "FILE", kPrecise | kKernel, "write each frame's motion and correction as CSV",
     SetMotionFile},
    {"--force", "", kAll, "overwrite a motion file that exists", Set<&Options::overwrite>},
    {"--frames", "N", kAll, "number of frames in the input, for the progress bar", SetTotalFrames},
    {"--simd", "LEVEL", kPrecise | kKernel,
     "cap on the instruction set: scalar, avx2 (default the best of this machine)", SetSimd},
    {"--registered", "", kTransform,
     "the transform that is registered, not the one beside the program (Windows)", SetRegistered},
    {"--settings", "", kTransform,
     "show the transform's property pages, save what is applied, and end (Windows)", SetShowSettings},
    {"--output-size", "", kAll, "check the settings, print the size of the frames that come out, and end",
     SetAction<Action::PrintOutputSize>},
    {"--quiet", "", kAll, "no progress bar", Set<&Options::quiet>},
    {"--help", "", kAll, "print this text", SetAction<Action::PrintHelp>},
    {"--version", "", kAll, "print the version", SetAction<Action::PrintVersion>},
};

constexpr std::size_t kLongestName =
    std::ranges::max(kOptions, {}, [](const OptionRow& row) { return row.name.size(); }).name.size();

/// Insertions, deletions and replacements that make an option's name of the word (Levenshtein 1966).
std::size_t EditDistance(std::string_view from, std::string_view to) {
  std::array<std::size_t, kLongestName + 1> costs = {};
  std::iota(costs.begin(), costs.end(), 0);
  for (std::size_t i = 0; i < from.size(); ++i) {
    std::size_t diagonal = costs[0]++;
    for (std::size_t j = 0; j < to.size(); ++j) {
      const std::size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
      diagonal = costs[j + 1];
      costs[j + 1] = std::min({replaced, diagonal + 1, costs[j] + 1});
    }
  }
  return costs[to.size()];
}

[[noreturn]] void RefuseUnknown(std::string_view argument, std::string_view name) {
  const auto distance = [name](const OptionRow& row) { return EditDistance(name, row.name); };
  const OptionRow& nearest = *std::ranges::min_element(kOptions, {}, distance);
  const std::string hint =
      distance(nearest) <= 2 ? ", is it " + std::string(nearest.name) + "?" : "; see --help";
  throw UsageError("unknown option " + std::string(argument) + hint);
}

using Given = std::vector<const OptionRow*>;

bool AllServe(const Given& given, unsigned engine) {
  return std::ranges::all_of(given, [engine](const OptionRow* row) { return (row->engines & engine) != 0; });
}

/// The engine where none is named.
Engine DefaultEngine(const Options& options, const Given& given) {
  if (options.registered) return Engine::Transform;
  if (options.size.width == 0) return Engine::Precise;
  const bool transformCan = kHasTransform && AllServe(given, kTransform) &&
                            (!options.roi || ShareFarEdge(*options.roi, options.size));
  return transformCan ? Engine::Transform : Engine::Kernel;
}

void CheckServed(const OptionRow& row, Engine engine) {
  if ((row.engines & Bit(engine)) != 0) return;
  const std::string_view wayOut =
      engine == Engine::Precise         ? "leave it out, or choose --engine kernel with --size WxH"
      : (row.engines & kKernel) != 0    ? "choose --engine kernel"
      : (row.engines & kTransform) != 0 ? "choose --engine transform"
                                        : "the precise engine has it: give YUV4MPEG2, without --size";
  throw UsageError(std::string(row.name) + " is no option of the engine " +
                   std::string(kEngines[static_cast<std::size_t>(engine)]) + "; " + std::string(wayOut));
}

void CheckWhole(Options& options, const Given& given) {
  const auto isEngine = [](const OptionRow* row) { return row->name == "--engine"; };
  if (std::ranges::none_of(given, isEngine)) options.engine = DefaultEngine(options, given);
  for (const OptionRow* row : given) CheckServed(*row, options.engine);
  if (options.engine != Engine::Precise && options.size.width == 0)
    throw UsageError("the frame size is missing: give --size WxH");
}

}  // namespace

void Refuse(std::string_view option, std::string_view value, const std::string& wanted) {
  throw UsageError(std::string(option) + ' ' + std::string(value) + ": " + wanted);
}

Options ParseOptions(std::span<const char* const> arguments) {
  Options options;
  Given given;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string_view argument = arguments[i];
    const std::size_t equals = argument.find('=');
    const std::string_view name = argument.substr(0, equals);
    const auto* const row = std::ranges::find(kOptions, name, &OptionRow::name);
    if (row == std::end(kOptions)) RefuseUnknown(argument, name);

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
    given.push_back(row);
    if (options.action == Action::PrintHelp || options.action == Action::PrintVersion) return options;
  }
  if (options.action != Action::ShowSettings) CheckWhole(options, given);
  return options;
}

std::string HelpText() {
  constexpr std::size_t kIndent = 26;
  std::string text =
      "usage: vstabilize [settings] < in.y4m > out.y4m         YUV4MPEG2, precise engine\n"
      "       vstabilize --size WxH [settings] < in > out      raw bgr24, classic engine\n"
      "\n"
      "Stabilizes video in a pipe. As many frames come out as went in.\n"
      "Raw frames are 24-bit blue-green-red without padding, top row first.\n"
      "\n"s;
  for (const OptionRow& row : kOptions) {
    std::string left = "  " + std::string(row.name) + ' ' + std::string(row.value);
    left.resize(kIndent, ' ');
    text += left;
    for (const char c : row.help) text += c == '\n' ? '\n' + std::string(kIndent, ' ') : std::string(1, c);
    text += '\n';
  }
  return text + "\nExit codes: 0 done, 1 the work failed, 2 wrong usage.\n";
}
