#include "video/command.h"

#include <algorithm>
#include <filesystem>
#include <new>

#include "host/options.h"
#include "host/platform.h"
#include "host/workerror.h"
#include "video/av.h"
#include "video/interruption.h"
#include "video/job.h"

namespace {

enum ExitCode { kDone = 0, kWorkFailed = 1, kWrongUsage = 2, kInterrupted = 130 };

int Print(const std::string& text, std::FILE* output, const Notes& notes) {
  if (std::fputs(text.c_str(), output) >= 0 && std::fflush(output) == 0) return kDone;
  notes.Warn("cannot write to the standard output");
  return kWorkFailed;
}

/// Runs the work and makes its failure a line and an exit code.
template <class Work>
int Report(const Notes& notes, const Work& work) {
  std::string failure;
  ExitCode code = kWorkFailed;
  try {
    return work();
  } catch (const UsageError& error) {
    code = kWrongUsage;
    failure = error.what();
  } catch (const Interruption& error) {
    code = kInterrupted;
    failure = error.what();
  } catch (const std::bad_alloc&) {
    failure = "not enough memory; a shorter --window needs less";
  } catch (const std::exception& error) {
    failure = error.what();
  }
  notes.Warn(failure);
  return code;
}

/// Several files, one after the other; a failure of one does not stop the others.
int StabilizeAll(const Options& options, const Notes& notes, std::FILE* terminal) {
  if (!std::filesystem::is_directory(options.folder)) throw WorkError("no such folder: " + options.folder);
  if (!options.motionFile.empty() && options.files.size() > 1)
    throw UsageError("--motion: one file cannot hold the motion of several");
  int worst = kDone;
  for (const std::string& file : options.files) {
    const std::filesystem::path target =
        std::filesystem::path(options.folder) / std::filesystem::path(file).filename();
    const int code = Report(notes, [&] {
      StabilizeFile(options, file, target.string(), notes, terminal);
      return kDone;
    });
    if (code == kInterrupted) return code;
    worst = std::max(worst, code);
  }
  return worst;
}

}  // namespace

int RunStabilize(std::span<const char* const> arguments, std::FILE* output, std::FILE* messages) {
  KeepLibraryMessages();
  CatchSignals();
  const bool isTerminal = IsTerminal(messages);
  return Report(Notes(messages, false), [&] {
    const Options options = ParseOptions(arguments, Program::Files);
    const Notes notes(messages, options.verbose || (isTerminal && !options.quiet));
    if (options.action == Action::PrintHelp) return Print(HelpText(Program::Files), output, notes);
    if (options.action == Action::PrintVersion)
      return Print("stabilize " VSTABILIZE_VERSION "\n", output, notes);
    std::FILE* const terminal = isTerminal && !options.quiet ? messages : nullptr;
    if (!options.folder.empty()) return StabilizeAll(options, notes, terminal);
    StabilizeFile(options, options.files[0], options.files[1], notes, terminal);
    return static_cast<int>(kDone);
  });
}
