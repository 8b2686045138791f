#include "host/options.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <numeric>
#include <vector>

#include "host/platform.h"
#include "host/settings.h"
#include "kernel/frame.h"

namespace {

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

/// Parses integers with `separator` between them; false unless they are exactly as many as `values` holds.
bool ParseList(std::string_view text, char separator, std::span<std::int32_t> values) {
  for (std::size_t i = 0; i < values.size(); ++i) {
    const bool isLast = i + 1 == values.size();
    const std::size_t length = isLast ? text.size() : std::min(text.find(separator), text.size());
    if (!ParseNumber(text.substr(0, length), values[i])) return false;
    if (!isLast) text.remove_prefix(std::min(length + 1, text.size()));
  }
  return true;
}

/// The index of `value` in `words`. Throws a UsageError that lists the words if `value` is none of them.
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

template <std::string Encoding::*field>
void SetEncoding(Options& options, std::string_view name, std::string_view value) {
  if (value.empty()) Refuse(name, value, "the value is missing");
  options.encoding.*field = value;
}

void SetCrf(Options& options, std::string_view name, std::string_view value) {
  double crf = 0;
  if (!ParseNumber(value, crf) || !(crf >= 0)) Refuse(name, value, "give a number, such as 18");
  options.encoding.crf = crf;
}

void SetFolder(Options& options, std::string_view name, std::string_view value) {
  if (value.empty()) Refuse(name, value, "give the folder for the outputs");
  options.folder = value;
}

/// Parses seconds, MM:SS or HH:MM:SS. The seconds may have decimals.
bool ParseTime(std::string_view text, std::int64_t& milliseconds) {
  std::int64_t whole = 0;  // hours and minutes, in seconds
  double seconds = 0, limit = 1e9;
  for (std::size_t colon = text.find(':'), count = 0; colon != std::string_view::npos;
       colon = text.find(':')) {
    std::int32_t part = 0;
    if (++count > 2 || !ParseNumber(text.substr(0, colon), part) || part < 0 || part >= limit) return false;
    whole = 60 * (whole + part);
    limit = 60;
    text.remove_prefix(colon + 1);
  }
  if (!ParseNumber(text, seconds) || !(seconds >= 0 && seconds < limit)) return false;
  milliseconds = 1000 * whole + std::llround(1000 * seconds);
  return true;
}

template <std::optional<std::int64_t> Options::*field>
void SetTime(Options& options, std::string_view name, std::string_view value) {
  std::int64_t milliseconds = 0;
  if (!ParseTime(value, milliseconds))
    Refuse(name, value, "give seconds, such as 75.5, or [HH:]MM:SS, such as 01:15.5");
  options.*field = milliseconds;
}

void SetFormat(Options& options, std::string_view name, std::string_view value) {
  if (value.empty() || value.find_first_of("./") != std::string_view::npos)
    Refuse(name, value, "give a format's extension, such as mkv");
  options.format = value;
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

constexpr unsigned Bit(Program program) { return 1U << static_cast<unsigned>(program); }

constexpr unsigned kPipe = Bit(Program::Pipe), kFiles = Bit(Program::Files), kBoth = kPipe | kFiles;

struct OptionRow {
  std::string_view name;
  std::string_view value;  ///< its name in the help; empty for an option without a value
  unsigned programs;       ///< bits of the programs that have the option
  unsigned engines;        ///< bits of the engines that have the option
  std::string_view help;
  void (*set)(Options& options, std::string_view name, std::string_view value);
};

// In the help texts, the part that differs between the engines begins on a new line.
constexpr OptionRow kOptions[] = {
    {"--size", "WxH", kPipe, kClassic, "size of raw frames in pixels; without it the input is YUV4MPEG2",
     SetSize},
    {"--engine", "NAME", kPipe, kAll,
     "precise, kernel (classic)\nor on Windows transform (classic, through COM)", SetEngine},
    {"--engine", "NAME", kFiles, kAll, "precise, or kernel for the classic engine (default precise)",
     SetEngine},
    {"--window", "N", kBoth, kAll,
     "smoothing window in frames\nprecise: even, 2 to 256 (default one second, 16 to 64)\n"
     "classic: 4, 8, 12, 16, 24, 32, 64, 128 (default 32)",
     SetWindow},
    {"--crop", "P%|X,Y", kBoth, kAll,
     "margins of each side, in percent, or left/right and top/bottom in pixels\n"
     "(default precise: 5%; classic: 0, none)",
     SetCrop},
    {"--clip", "HOW", kBoth, kAll,
     "what the margins do: stretch, crop, outline\n(default precise: stretch; classic: outline)", SetClip},
    {"--interpolation", "HOW", kBoth, kAll,
     "nearest, bilinear, bicubic\n(default precise: bicubic; classic, which has no bicubic: bilinear)",
     SetInterpolation},
    {"--background", "RRGGBB", kBoth, kAll,
     "colour of uncovered pixels (default 000000)\nor keep: what was last seen there (precise)",
     SetBackground},
    {"--rotation", "", kBoth, kAll, "correct roll too (default of precise)", Set<&Options::rotation>},
    {"--no-rotation", "", kBoth, kAll, "do not correct roll (default of classic)",
     Set<&Options::rotation, false>},
    {"--tripod", "", kBoth, kPrecise, "hold still: align every frame of a shot with its first (precise)",
     Set<&Options::tripod>},
    {"--no-cuts", "", kBoth, kPrecise, "treat the clip as one shot (precise)",
     Set<&Options::findCuts, false>},
    {"--roi", "L,T,R,B", kBoth, kAll, "estimate from this region only (default the whole frame)", SetRoi},
    {"--quality", "1..4", kBoth, kClassic,
     "precision of the motion estimate, 1 finest and slowest (classic; default 3)", SetQuality},
    {"--motion", "FILE", kBoth, kPrecise | kKernel, "write each frame's motion and correction as CSV",
     SetMotionFile},
    {"--force", "", kPipe, kAll, "overwrite a motion file that exists", Set<&Options::overwrite>},
    {"--force", "", kFiles, kAll, "overwrite OUTPUT and the motion file", Set<&Options::overwrite>},
    {"--into", "FOLDER", kFiles, kAll, "write each output into FOLDER, under its input's name", SetFolder},
    {"--format", "EXT", kFiles, kAll,
     "extension of the outputs' format (default OUTPUT's own; with --into, INPUT's)", SetFormat},
    {"--start", "T", kFiles, kAll, "begin with the first frame at T or later: seconds or [HH:]MM:SS[.mmm]",
     SetTime<&Options::start>},
    {"--end", "T", kFiles, kAll, "end before the first frame at T or later", SetTime<&Options::end>},
    {"--compare", "", kFiles, kAll, "show the picture before and after, side by side",
     Set<&Options::compare>},
    {"--codec", "NAME", kFiles, kAll,
     "codec of the picture, or name of an encoder (default by OUTPUT's extension)",
     SetEncoding<&Encoding::codec>},
    {"--crf", "N", kFiles, kAll, "quality of the encoding, lower is better (default by codec)", SetCrf},
    {"--preset", "NAME", kFiles, kAll, "preset of the encoder: its speed against size (default by codec)",
     SetEncoding<&Encoding::preset>},
    {"--encoder-options", "K=V", kFiles, kAll, "further options of the encoder, K=V:K=V for several",
     SetEncoding<&Encoding::options>},
    {"--keep-partial", "", kFiles, kAll, "keep the output of a clip that breaks off",
     Set<&Options::keepPartial>},
    {"--frames", "N", kPipe, kAll, "number of frames in the input, for the progress bar", SetTotalFrames},
    {"--simd", "LEVEL", kBoth, kPrecise | kKernel,
     "highest instruction set to use: scalar, avx2 (default the best of this machine)", SetSimd},
    {"--registered", "", kPipe, kTransform,
     "use the registered transform, not the one beside the program (Windows)", SetRegistered},
    {"--settings", "", kPipe, kTransform,
     "show the transform's property pages and end; Apply saves the settings (Windows)", SetShowSettings},
    {"--output-size", "", kPipe, kAll, "check the settings, print the size of the output frames, and end",
     SetAction<Action::PrintOutputSize>},
    {"--quiet", "", kBoth, kAll, "no progress bar", Set<&Options::quiet>},
    {"--verbose", "", kFiles, kAll, "print more, even without a terminal", Set<&Options::verbose>},
    {"--help", "", kBoth, kAll, "print this text", SetAction<Action::PrintHelp>},
    {"--version", "", kBoth, kAll, "print the version", SetAction<Action::PrintVersion>},
};

constexpr std::size_t kLongestName =
    std::ranges::max(kOptions, {}, [](const OptionRow& row) { return row.name.size(); }).name.size();

/// The fewest insertions, deletions and replacements that turn a word into an option's name (Levenshtein
/// 1966).
std::size_t EditDistance(std::string_view word, std::string_view name) {
  std::array<std::size_t, kLongestName + 1> costs = {};
  std::iota(costs.begin(), costs.end(), 0);
  for (std::size_t i = 0; i < word.size(); ++i) {
    std::size_t diagonal = costs[0]++;
    for (std::size_t j = 0; j < name.size(); ++j) {
      const std::size_t replaced = diagonal + (word[i] == name[j] ? 0 : 1);
      diagonal = costs[j + 1];
      costs[j + 1] = std::min({replaced, diagonal + 1, costs[j] + 1});
    }
  }
  return costs[name.size()];
}

[[noreturn]] void RefuseUnknown(std::string_view argument, std::string_view name, Program program) {
  const auto distance = [=](const OptionRow& row) {
    return (row.programs & Bit(program)) != 0 ? EditDistance(name, row.name) : name.size() + kLongestName;
  };
  const OptionRow& nearest = *std::ranges::min_element(kOptions, {}, distance);
  const std::string hint =
      distance(nearest) <= 2 ? ", is it " + std::string(nearest.name) + "?" : "; see --help";
  throw UsageError("unknown option " + std::string(argument) + hint);
}

const OptionRow& FindOption(std::string_view argument, std::string_view name, Program program) {
  for (const OptionRow& row : kOptions)
    if (row.name == name && (row.programs & Bit(program)) != 0) return row;
  RefuseUnknown(argument, name, program);
}

using Given = std::vector<const OptionRow*>;

bool HasAll(unsigned engine, const Given& given) {
  return std::ranges::all_of(given, [engine](const OptionRow* row) { return (row->engines & engine) != 0; });
}

/// The engine of `vstabilize` without --engine.
Engine DefaultEngine(const Options& options, const Given& given) {
  if (options.registered) return Engine::Transform;
  if (options.size.width == 0) return Engine::Precise;
  const bool transformCan = kHasTransform && HasAll(kTransform, given) &&
                            (!options.roi || EqualizeRightAndBottom(*options.roi, options.size));
  return transformCan ? Engine::Transform : Engine::Kernel;
}

void CheckEngineHas(const OptionRow& row, Engine engine, Program program) {
  if ((row.engines & Bit(engine)) != 0) return;
  const bool isPipe = program == Program::Pipe;
  const std::string_view wayOut = engine == Engine::Precise
                                      ? isPipe ? "leave it out, or choose --engine kernel with --size WxH"
                                               : "leave it out, or choose --engine kernel"
                                  : (row.engines & kKernel) != 0    ? "choose --engine kernel"
                                  : (row.engines & kTransform) != 0 ? "choose --engine transform"
                                  : isPipe ? "the precise engine has it: give YUV4MPEG2, without --size"
                                           : "choose --engine precise";
  throw UsageError(std::string(row.name) + " is no option of the engine " +
                   std::string(kEngines[static_cast<std::size_t>(engine)]) + "; " + std::string(wayOut));
}

void CheckRange(const Options& options) {
  if (!options.IsRange()) return;
  if (options.end && *options.end <= options.start.value_or(0))
    throw UsageError("--end: the range ends before it starts; give a later time");
  if (options.keepBackground)
    throw UsageError("--background keep: it needs all earlier frames; leave out --start and --end");
  if (!options.motionFile.empty() && options.engine == Engine::Kernel)
    throw UsageError("--motion: the engine kernel logs whole clips only; leave out --start and --end");
}

void CheckFiles(const Options& options) {
  CheckRange(options);
  if (options.engine == Engine::Transform)
    Refuse("--engine", "transform", "choose precise or kernel for files");
  if (options.folder.empty() ? options.files.size() != 2 : options.files.empty())
    throw UsageError("give INPUT and OUTPUT, or INPUT... --into FOLDER; see --help");
}

/// Chooses the engine if none is named, and checks the options against the engine and against each other.
void CompleteAndCheck(Options& options, const Given& given, Program program) {
  const auto isEngine = [](const OptionRow* row) { return row->name == "--engine"; };
  if (program == Program::Pipe && std::ranges::none_of(given, isEngine))
    options.engine = DefaultEngine(options, given);
  for (const OptionRow* row : given) CheckEngineHas(*row, options.engine, program);
  if (program == Program::Files) return CheckFiles(options);
  if (options.engine != Engine::Precise && options.size.width == 0)
    throw UsageError("the frame size is missing: give --size WxH");
}

/// The value of an option: the text after `=`, or the next argument.
std::string_view ValueOf(const OptionRow& row, std::span<const char* const> arguments, std::size_t& i) {
  const std::string_view argument = arguments[i];
  const std::size_t equals = argument.find('=');
  if (row.value.empty()) {
    if (equals != std::string_view::npos) throw UsageError(std::string(row.name) + " takes no value");
    return {};
  }
  if (equals != std::string_view::npos) return argument.substr(equals + 1);
  if (++i < arguments.size()) return arguments[i];
  throw UsageError(std::string(row.name) + " needs a value: " + std::string(row.value));
}

constexpr std::string_view kPipeUsage =
    "usage: vstabilize [settings] < in.y4m > out.y4m         YUV4MPEG2, precise engine\n"
    "       vstabilize --size WxH [settings] < in > out      raw bgr24, classic engine\n"
    "\n"
    "Stabilizes video in a pipe. As many frames come out as went in.\n"
    "Raw frames are 24-bit blue-green-red without padding, top row first.\n"
    "\n";

constexpr std::string_view kFilesUsage =
    "usage: stabilize INPUT OUTPUT [settings]\n"
    "       stabilize INPUT... --into FOLDER [settings]\n"
    "       stabilize - - --format EXT [settings] < in > out\n"
    "\n"
    "Takes the shake out of a video. OUTPUT's extension selects its format.\n"
    "Sound, subtitles, time stamps and colours stay as in INPUT.\n"
    "After -- all arguments are file names.\n"
    "\n"
    "  stabilize shaky.mp4 steady.mp4\n"
    "  stabilize shaky.mov steady.mkv --crop 8% --window 60\n"
    "\n";

}  // namespace

void Refuse(std::string_view option, std::string_view value, const std::string& wanted) {
  throw UsageError(std::string(option) + ' ' + std::string(value) + ": " + wanted);
}

Options ParseOptions(std::span<const char* const> arguments, Program program) {
  Options options;
  Given given;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string_view argument = arguments[i];
    if (program == Program::Files && argument == "--") {
      options.files.insert(options.files.end(), arguments.begin() + static_cast<std::ptrdiff_t>(i) + 1,
                           arguments.end());
      break;
    }
    if (program == Program::Files && !argument.starts_with("--")) {
      options.files.emplace_back(argument);
      continue;
    }
    const OptionRow& row = FindOption(argument, argument.substr(0, argument.find('=')), program);
    row.set(options, row.name, ValueOf(row, arguments, i));
    given.push_back(&row);
    if (options.action == Action::PrintHelp || options.action == Action::PrintVersion) return options;
  }
  if (options.action != Action::ShowSettings) CompleteAndCheck(options, given, program);
  return options;
}

std::string HelpText(Program program) {
  constexpr std::size_t kIndent = 26, kBlanks = 2 + 1 + 2;  // before and behind the name, behind the value
  static_assert(std::ranges::all_of(kOptions, [](const OptionRow& row) {
    return row.name.size() + row.value.size() + kBlanks <= kIndent;
  }));
  std::string text(program == Program::Pipe ? kPipeUsage : kFilesUsage);
  for (const OptionRow& row : kOptions) {
    if ((row.programs & Bit(program)) == 0) continue;
    std::string left = "  " + std::string(row.name) + ' ' + std::string(row.value);
    left.resize(kIndent, ' ');
    text += left;
    for (const char c : row.help) text += c == '\n' ? '\n' + std::string(kIndent, ' ') : std::string(1, c);
    text += '\n';
  }
  text += "\nExit codes: 0 done, 1 the work failed, 2 wrong usage";
  return text + (program == Program::Pipe ? ".\n" : ", 130 interrupted.\n");
}
