#include "host/command.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string>

#include "host/kernelstabilizer.h"
#include "host/motionlog.h"
#include "host/options.h"
#include "host/platform.h"
#include "host/printable.h"
#include "host/progress.h"
#include "host/rawvideo.h"
#include "host/transform.h"
#include "host/workerror.h"

namespace {

enum ExitCode { kDone = 0, kWorkFailed = 1, kWrongUsage = 2 };

std::unique_ptr<Stabilizer> MakeStabilizer(const Options& options) {
  if constexpr (kHasTransform)
    if (options.engine == Engine::Transform) return MakeTransformStabilizer(options);
  return std::make_unique<KernelStabilizer>(options);
}

/// One run over a stream: what comes in goes through the stabilizer and out again.
class Run {
 public:
  Run(const Options& options, std::FILE* input, std::FILE* output, std::FILE* messages)
      : m_reader(input, options.size),
        m_writer(output, GetOutputSize(options.settings, options.size)),
        m_pStabilizer(MakeStabilizer(options)),
        m_progress(messages, options.totalFrames, !options.quiet && IsTerminal(messages)) {}

  /// Frames finished before a failure have been written.
  void Stabilize() {
    RawVideoReader::Result result = m_reader.Read(m_pStabilizer->InputFrame());
    for (; result == RawVideoReader::Result::Frame; result = m_reader.Read(m_pStabilizer->InputFrame())) {
      ++m_framesIn;
      Process(false);
    }
    while (m_framesOut < m_framesIn) Process(true);
    m_pStabilizer->Finish();
    if (result == RawVideoReader::Result::Failed)
      throw WorkError(m_reader.Failure() + "; the " + std::to_string(m_framesOut) +
                      " whole frames before it were written");
  }

  std::int64_t FramesIn() const { return m_framesIn; }

 private:
  /// Hands over the input frame, or the newest one again, and writes what comes out.
  void Process(bool repeatNewest) {
    const std::optional<StabilizedFrame> frame = m_pStabilizer->Process(repeatNewest);
    if (!frame) return;
    m_writer.Write(frame->pixels, frame->pitchBytes);
    m_progress.Update(++m_framesOut);
  }

  RawVideoReader m_reader;
  RawVideoWriter m_writer;
  std::unique_ptr<Stabilizer> m_pStabilizer;
  std::int64_t m_framesIn = 0, m_framesOut = 0;
  Progress m_progress;
};

/// One line that no terminal takes for commands, whatever the words of the command line hold.
int Report(std::FILE* messages, ExitCode code, const std::string& reason) {
  std::fprintf(messages, "vstabilize: %s\n", WithoutControls(reason).c_str());
  return code;
}

int Print(std::FILE* output, std::FILE* messages, const std::string& text) {
  if (std::fputs(text.c_str(), output) >= 0 && std::fflush(output) == 0) return kDone;
  return Report(messages, kWorkFailed, std::string("cannot write the output: ") + std::strerror(errno));
}

int ShowSettings(const Options& options, std::FILE* messages) {
  try {
    if constexpr (kHasTransform) ShowSettingsPages(options.registered);
    return kDone;
  } catch (const WorkError& error) {
    return Report(messages, kWorkFailed, error.what());
  }
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
        const FrameSize size = GetOutputSize(options.settings, options.size);
        return Print(output, messages, std::to_string(size.width) + "x" + std::to_string(size.height) + "\n");
      }
      case Action::ShowSettings:
        return ShowSettings(options, messages);
      case Action::Stabilize:
        return StabilizeStream(options, input, output, messages);
    }
  } catch (const UsageError& error) {
    return Report(messages, kWrongUsage, error.what());
  }
  return kWrongUsage;
}
