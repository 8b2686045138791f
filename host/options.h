#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "base/simd.h"
#include "engine/stabilizersettings.h"
#include "precise/stabilizer.h"

/// The command line cannot be understood or makes no sense; the message says why and what would.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Throws UsageError.
[[noreturn]] void Refuse(std::string_view option, std::string_view value, const std::string& wanted);

/// What the command does.
enum class Action { Stabilize, ShowSettings, PrintOutputSize, PrintHelp, PrintVersion };

/// What stabilizes: the precise engine, or the classic one as a kernel or as the transform through COM. The
/// last two give the same bytes.
enum class Engine { Precise, Kernel, Transform };

/// Margins of each side.
struct Margins {
  double x = 0, y = 0;
  bool isPercent = false;  ///< of the frame's width and height; otherwise pixels
};

/// The programs that share the options: `vstabilize` works in a pipe, `stabilize` on files.
enum class Program { Pipe, Files };

/// What `stabilize` takes for the standard input or output where a file is to be named.
inline constexpr std::string_view kStandardStream = "-";

/// How `stabilize` encodes the picture. What is empty follows from the output's format.
struct Encoding {
  std::string codec, preset;
  std::optional<double> crf;
  std::string options;  ///< of the encoder: k=v:k=v
};

/// What was asked for. An empty optional leaves the choice to the engine, see `host/settings.h`.
struct Options {
  Action action = Action::Stabilize;
  Engine engine = Engine::Precise;
  FrameSize size = {0, 0};  ///< of raw frames; zero: the stream tells
  std::optional<std::int32_t> window;
  std::optional<Margins> margins;
  std::optional<precise::Clipping> clipping;
  std::optional<precise::Interpolation> interpolation;
  std::array<std::uint8_t, 3> background = {0, 0, 0};  ///< blue, green, red
  bool keepBackground = false;
  std::optional<bool> rotation;
  bool tripod = false, findCuts = true;
  std::optional<Rect> roi;
  std::optional<std::int32_t> quality;  ///< 0 finest … 3
  bool registered = false;              ///< the transform that is registered, not the one beside the program
  SimdLevel simd = SimdLevel::Avx2;     ///< at most
  std::string motionFile;               ///< empty: none
  bool overwrite = false;               ///< files that exist
  std::int64_t totalFrames = 0;         ///< 0: unknown
  bool quiet = false;

  // Of `stabilize` alone.
  std::vector<std::string> files;
  std::string folder;  ///< for the outputs; empty: the last of the files is the output
  std::string format;  ///< extension that names the outputs' format; empty: as their names say
  std::optional<std::int64_t> start, end;  ///< of the range, in milliseconds; nothing: the clip's own
  Encoding encoding;
  bool compare = false, keepPartial = false, verbose = false;

  bool IsRange() const { return start || end; }
};

/// Reads the arguments after the program's name. Throws UsageError.
Options ParseOptions(std::span<const char* const> arguments, Program program = Program::Pipe);

std::string HelpText(Program program = Program::Pipe);
