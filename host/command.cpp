#include "host/command.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "host/motionlog.h"
#include "host/options.h"
#include "host/platform.h"
#include "host/progress.h"
#include "host/rawvideo.h"
#include "host/workerror.h"
#include "kernel/stabilizevideokernel.h"

namespace {

enum ExitCode { kDone = 0, kWorkFailed = 1, kWrongUsage = 2 };

/// One run over a stream: what comes in goes through the kernel and out again.
class Run {
 public:
  Run(const Options& options, std::FILE* input, std::FILE* output, std::FILE* messages)
      : m_params(MakeKernelParams(options.settings, options.size)),
        m_outputSize(GetOutputSize(options.settings, options.size)),
        m_reader(input, options.size),
        m_writer(output, m_outputSize),
        m_kernel(*options.ops),
        m_progress(messages, options.totalFrames, !options.quiet && IsTerminal(messages)) {
    if (!options.motionFile.empty()) m_motionLog.emplace(options.motionFile);
    if (!m_kernel.Initialize(m_params)) throw std::bad_alloc();
    PrepareBuffer();
  }

  /// Frames finished before a failure have been written.
  void Stabilize() {
    RawVideoReader::Result result = m_reader.Read(m_buffer.data());
    for (; result == RawVideoReader::Result::Frame; result = m_reader.Read(m_buffer.data())) {
      ++m_framesIn;
      Process(false);
    }
    while (m_framesOut < m_framesIn) Process(true);
    if (m_motionLog) m_motionLog->Close();
    if (result == RawVideoReader::Result::Failed)
      throw WorkError(m_reader.Failure() + "; the " + std::to_string(m_framesOut) +
                      " whole frames before it were written");
  }

  std::int64_t FramesIn() const { return m_framesIn; }

 private:
  bool IsCropped() const {
    return m_params.clippingOption == static_cast<std::uint32_t>(ClippingOption::Crop);
  }

  /// Rows of a cropped frame may run past the frame's own bytes, where the kernel writes nothing: there the
  /// background stands.
  void PrepareBuffer() {
    const FrameGeometry frame(m_params.width, m_params.height);
    m_pitch = IsCropped() ? PackedCropPitch(m_outputSize.width) : frame.strideBytes;
    const std::ptrdiff_t size = std::max(frame.SizeBytes(), m_pitch * m_outputSize.height);
    m_buffer.resize(static_cast<std::size_t>(size));
    for (std::ptrdiff_t i = frame.SizeBytes(); i < size; ++i)
      m_buffer[static_cast<std::size_t>(i)] =
          m_params.backgroundColor[static_cast<std::size_t>(i % m_pitch % kBytesPerPixel)];
  }

  /// Hands the kernel the buffer's frame, or the newest one again, and writes what it delivers.
  void Process(bool repeatPrevious) {
    bool noOutput = false;
    if (!m_kernel.ProcessFrame(m_buffer.data(), repeatPrevious, &noOutput)) throw std::bad_alloc();
    if (m_motionLog && !repeatPrevious) m_motionLog->AddMotion(m_kernel.LatestMotion());
    if (noOutput) return;
    m_writer.Write(m_buffer.data(), m_pitch);
    if (m_motionLog) m_motionLog->AddCorrection(m_kernel.LatestCorrection());
    m_progress.Update(++m_framesOut);
  }

  KernelParams m_params;
  FrameSize m_outputSize;
  RawVideoReader m_reader;
  RawVideoWriter m_writer;
  CStabilizeVideoKernel m_kernel;
  std::optional<MotionLog> m_motionLog;
  std::vector<std::uint8_t> m_buffer;
  std::ptrdiff_t m_pitch = 0;
  std::int64_t m_framesIn = 0, m_framesOut = 0;
  Progress m_progress;
};

/// One line, whatever the words of the command line hold.
int Report(std::FILE* messages, ExitCode code, std::string reason) {
  std::ranges::replace_if(
      reason, [](char c) { return c >= 0 && c < ' '; }, '?');
  std::fprintf(messages, "vstabilize: %s\n", reason.c_str());
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
      case Action::Stabilize:
        return StabilizeStream(options, input, output, messages);
    }
  } catch (const UsageError& error) {
    return Report(messages, kWrongUsage, error.what());
  }
  return kWrongUsage;
}
