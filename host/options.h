#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>

#include "engine/stabilizersettings.h"
#include "kernel/dispatch.h"

/// The command line cannot be understood or makes no sense; the message says why and what would.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// What the command does.
enum class Action { Stabilize, ShowSettings, PrintOutputSize, PrintHelp, PrintVersion };

/// What stabilizes: the kernel itself, or the transform through COM. Both give the same bytes.
enum class Engine { Kernel, Transform };

struct Options {
  Action action = Action::Stabilize;
  FrameSize size = {0, 0};
  StabilizerSettings settings;
  std::optional<Engine> engine;    ///< set once the options are complete
  bool registered = false;         ///< the transform that is registered, not the one beside the program
  const KernelOps* ops = nullptr;  ///< null: the best there are
  std::string motionFile;          ///< empty: none
  bool overwrite = false;          ///< a motion file that exists
  std::int64_t totalFrames = 0;    ///< 0: unknown
  bool quiet = false;
};

/// Reads the arguments after the program's name. Throws UsageError.
Options ParseOptions(std::span<const char* const> arguments);

std::string HelpText();
