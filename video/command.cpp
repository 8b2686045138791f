#include "video/command.h"

#include <filesystem>
#include <map>
#include <new>
#include <vector>

#include "host/options.h"
#include "host/platform.h"
#include "host/workerror.h"
#include "video/av.h"
#include "video/interruption.h"
#include "video/job.h"
#include "video/output.h"

namespace {

enum ExitCode { kDone = 0, kWorkFailed = 1, kWrongUsage = 2, kInterrupted = 130 };

int Print(const std::string& text, std::FILE* output, const Notes& notes) {
  if (std::fputs(text.c_str(), output) >= 0 && std::fflush(output) == 0) return kDone;
  notes.Warn("cannot write to the standard output");
  return kWorkFailed;
}

/// Runs the work. A failure becomes a line of text and an exit code.
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

namespace fs = std::filesystem;

[[noreturn]] void RefuseOneTarget(const std::string& one, const std::string& other,
                                  const std::string& target) {
  throw UsageError("both " + one + " and " + other + " would be written to " + target +
                   "; write them into different folders");
}

/// The output of each input, in the folder of --into. Throws WorkError when there is no such folder, and
/// UsageError when an output would overwrite an input or another output.
std::vector<std::string> PlanTargets(const Options& options) {
  if (!fs::is_directory(options.folder)) throw WorkError("no such folder: " + options.folder);
  if (!options.motionFile.empty() && options.files.size() > 1)
    throw UsageError("--motion: one file cannot hold the motion of several clips");
  std::vector<std::string> targets;
  std::map<std::string, std::string> sources;
  for (const std::string& file : options.files) {
    if (file == kStandardStream)
      throw UsageError("--into: the standard input has no name; give OUTPUT instead");
    fs::path name = fs::path(file).filename();
    if (!options.format.empty()) name.replace_extension(options.format);
    const std::string target = (fs::path(options.folder) / name).string();
    FormatOf(target, "");
    const auto [other, isNew] = sources.emplace(target, file);
    if (!isNew) RefuseOneTarget(other->second, file, target);
    targets.push_back(target);
  }
  for (const std::string& file : options.files)
    for (const std::string& target : targets)
      if (std::error_code ignored; fs::equivalent(file, target, ignored))
        throw UsageError("--into: would overwrite INPUT " + file + "; give another folder");
  return targets;
}

/// Stabilizes several files, one after the other. When one fails, the others are still done.
int StabilizeAll(const Options& options, const Notes& notes, std::FILE* terminal) {
  const std::vector<std::string> targets = PlanTargets(options);
  std::vector<std::string> failed;
  for (std::size_t i = 0; i < targets.size(); ++i) {
    const int code = Report(notes, [&] {
      StabilizeFile(options, options.files[i], targets[i], notes, terminal);
      return kDone;
    });
    if (code == kInterrupted) return code;
    if (code != kDone) failed.push_back(options.files[i]);
  }
  std::string summary = "wrote " + std::to_string(targets.size() - failed.size()) + " of " +
                        std::to_string(targets.size()) + " clips to " + options.folder;
  for (const std::string& file : failed)
    summary.append(&file == &failed.front() ? "; not: " : ", ").append(file);
  if (!failed.empty() || !options.quiet) notes.Warn(summary);
  return failed.empty() ? kDone : kWorkFailed;
}

}  // namespace

int RunStabilize(std::span<const char* const> arguments, std::FILE* output, std::FILE* messages) {
  CaptureLibraryMessages();
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
