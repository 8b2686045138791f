#include "host/command.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string>

#include "host/motionlog.h"
#include "host/options.h"
#include "host/pipeline.h"
#include "host/platform.h"
#include "host/printable.h"
#include "host/progress.h"
#include "host/transform.h"
#include "host/workerror.h"

namespace {

enum ExitCode { kDone = 0, kWorkFailed = 1, kWrongUsage = 2 };

/// Takes one stream through an engine, from the first frame to the last.
class Run {
 public:
  Run(const Options& options, std::FILE* input, std::FILE* output, std::FILE* messages)
      : m_pPipeline(options.engine == Engine::Precise ? MakePrecisePipeline(options, input, output)
                                                      : MakeClassicPipeline(options, input, output)),
        m_progress(messages, options.totalFrames, !options.quiet && IsTerminal(messages)) {}

  /// Throws WorkError. When the input fails, all frames before the failure are written first.
  void Stabilize() {
    while (Take()) Deliver();
    m_pPipeline->EndInput();
    Deliver();
    m_pPipeline->Finish();
    if (!m_inputFailure.empty())
      throw WorkError(m_inputFailure + "; the " + std::to_string(m_framesOut) +
                      " whole frames before it were written");
  }

  std::int64_t FramesIn() const { return m_framesIn; }

 private:
  bool Take() {
    try {
      if (!m_pPipeline->Take()) return false;
    } catch (const WorkError& error) {
      m_inputFailure = error.what();
      return false;
    }
    ++m_framesIn;
    return true;
  }

  void Deliver() {
    while (m_pPipeline->Deliver()) m_progress.Update(++m_framesOut);
  }

  std::unique_ptr<Pipeline> m_pPipeline;
  std::int64_t m_framesIn = 0, m_framesOut = 0;
  std::string m_inputFailure;
  Progress m_progress;
};

/// Prints one line. Control characters are replaced: the reason may quote arguments that hold escape
/// sequences.
int Report(std::FILE* messages, ExitCode code, const std::string& reason) {
  std::fprintf(messages, "vstabilize: %s\n", WithoutControls(reason).c_str());
  return code;
}

int Print(std::FILE* output, std::FILE* messages, const std::string& text) {
  if (std::fputs(text.c_str(), output) >= 0 && std::fflush(output) == 0) return kDone;
  return Report(messages, kWorkFailed, std::string("cannot write the output: ") + std::strerror(errno));
}

int StabilizeStream(const Options& options, std::FILE* input, std::FILE* output, std::FILE* messages) {
  std::optional<Run> run;
  std::string failure;
  try {
    if (!options.motionFile.empty()) CheckMotionFile(options.motionFile, options.overwrite, input, output);
    run.emplace(options, input, output, messages);
    run->Stabilize();
    return kDone;
  } catch (const std::bad_alloc&) {
    failure = "frame " + std::to_string(run ? run->FramesIn() : 1) + ": not enough memory for frames of " +
              std::to_string(options.size.width) + "x" + std::to_string(options.size.height);
  } catch (const WorkError& error) {
    failure = error.what();
  }
  run.reset();  // ends the progress line
  return Report(messages, kWorkFailed, failure);
}

}  // namespace

int RunCommand(std::span<const char* const> arguments, std::FILE* input, std::FILE* output,
               std::FILE* messages) {
  try {
    const Options options = ParseOptions(arguments);
    switch (options.action) {
      case Action::PrintHelp:
        return Print(output, messages, HelpText());
      case Action::PrintVersion:
        return Print(output, messages, "vstabilize " VSTABILIZE_VERSION "\n");
      case Action::PrintOutputSize: {
        const FrameSize size = ReadOutputSize(options, input);
        return Print(output, messages, std::to_string(size.width) + "x" + std::to_string(size.height) + "\n");
      }
      case Action::ShowSettings:
        if constexpr (kHasTransform) ShowSettingsPages(options.registered);
        return kDone;
      case Action::Stabilize:
        return StabilizeStream(options, input, output, messages);
    }
  } catch (const UsageError& error) {
    return Report(messages, kWrongUsage, error.what());
  } catch (const WorkError& error) {
    return Report(messages, kWorkFailed, error.what());
  }
  return kWrongUsage;
}
