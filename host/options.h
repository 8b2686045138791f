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

/// The command line is wrong. The message says what is wrong and what would be right.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Throws the UsageError "`option` `value`: `wanted`".
[[noreturn]] void Refuse(std::string_view option, std::string_view value, const std::string& wanted);

/// What the command does.
enum class Action { Stabilize, ShowSettings, PrintOutputSize, PrintHelp, PrintVersion };

/// The precise engine or the classic one. `Kernel` calls the classic engine directly, `Transform` calls it
/// through COM; both give the same bytes.
enum class Engine { Precise, Kernel, Transform };

/// The margins at the left and at the right (`x`), and at the top and at the bottom (`y`).
struct Margins {
  double x = 0, y = 0;
  bool isPercent = false;  ///< percent of the frame's width and height; otherwise pixels
};

/// The programs that share the options: `vstabilize` works in a pipe, `stabilize` on files.
enum class Program { Pipe, Files };

/// To `stabilize`, this file name means the standard input or output.
inline constexpr std::string_view kStandardStream = "-";

/// How `stabilize` encodes the picture. Empty fields get defaults that depend on the output's format.
struct Encoding {
  std::string codec, preset;
  std::optional<double> crf;
  std::string options;  ///< further options of the encoder: k=v:k=v
};

/// What the command line asks for. An empty optional means the engine's default, see `host/settings.h`.
struct Options {
  Action action = Action::Stabilize;
  Engine engine = Engine::Precise;
  FrameSize size = {0, 0};  ///< of the classic engine's frames; zero if unknown
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
  bool registered = false;              ///< use the registered transform, not the one beside the program
  SimdLevel simd = SimdLevel::Avx2;     ///< the highest to use
  std::string motionFile;               ///< empty: none
  bool overwrite = false;               ///< existing files
  std::int64_t totalFrames = 0;         ///< 0: unknown
  bool quiet = false;

  // For `stabilize` only:
  std::vector<std::string> files;
  std::string folder;  ///< for the outputs; empty: the last of the files is the output
  std::string format;  ///< the extension of the outputs' format; empty: that of their names
  std::optional<std::int64_t> start, end;  ///< of the range, in milliseconds; empty: the clip's own
  Encoding encoding;
  bool compare = false, keepPartial = false, verbose = false;

  bool IsRange() const { return start || end; }
};

/// Reads the arguments after the program's name. Throws UsageError.
Options ParseOptions(std::span<const char* const> arguments, Program program = Program::Pipe);

std::string HelpText(Program program = Program::Pipe);
