#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/motionlog.h"
#include "host/pipeline.h"
#include "host/platform.h"
#include "host/settings.h"
#include "host/workerror.h"
#include "host/y4m.h"

namespace {

Y4mReader OpenInput(std::FILE* input) {
  if (IsTerminal(input))
    throw UsageError("video is expected on the standard input, not a terminal; see --help");
  return Y4mReader(input);
}

/// A ring of frame buffers, one for each frame that the engine holds at once.
class FramePool {
 public:
  FramePool(std::size_t frames, std::size_t frameBytes) {
    m_frames.reserve(frames);
    while (m_frames.size() < frames) m_frames.emplace_back(frameBytes);
  }

  /// The buffer of a frame, whose number counts from 0.
  Y4mFrame& operator[](std::int64_t frame) {
    return m_frames[static_cast<std::size_t>(frame) % m_frames.size()];
  }

 private:
  std::vector<Y4mFrame> m_frames;
};

precise::ConstPicture ConstPlanesOf(const precise::PictureFormat& format, const Y4mFrame& frame) {
  const precise::Picture planes = PlanesOf(format, frame.samples.get());
  precise::ConstPicture picture;
  for (std::size_t i = 0; i < planes.size(); ++i) picture[i] = {planes[i].data, planes[i].strideBytes};
  return picture;
}

class PrecisePipeline final : public Pipeline {
 public:
  PrecisePipeline(const Options& options, Y4mReader reader, const precise::Settings& settings,
                  std::FILE* output)
      : m_reader(std::move(reader)),
        m_outputFormat(precise::OutputFormat(m_reader.Facts().format, settings)),
        m_stabilizer(m_reader.Facts().format, settings, options.simd),
        m_held(static_cast<std::size_t>(m_stabilizer.DelayFrames()) + 1, FrameBytes(m_reader.Facts().format)),
        m_output(FrameBytes(m_outputFormat)) {
    if (!options.motionFile.empty()) m_log.emplace(options.motionFile, kPreciseColumns);
    // The writer's constructor writes the head, so all that may fail comes first.
    m_writer.emplace(output, m_reader.Head(), m_outputFormat);
  }

  bool Take() override {
    Y4mFrame& frame = m_held[m_framesTaken];
    if (!m_reader.Read(frame)) return false;
    ++m_framesTaken;
    m_stabilizer.Push(ConstPlanesOf(m_reader.Facts().format, frame));
    return true;
  }

  void EndInput() override { m_stabilizer.End(); }

  bool Deliver() override {
    if (!m_stabilizer.CanDeliver()) return false;
    const precise::FrameReport report =
        m_stabilizer.Deliver(PlanesOf(m_outputFormat, m_output.samples.get()));
    m_writer->Write(m_held[report.frame].parameters, {m_output.samples.get(), m_output.bytes});
    if (m_log) WriteReport(*m_log, report);
    return true;
  }

  void Finish() override {
    if (m_log) m_log->Close();
  }

 private:
  Y4mReader m_reader;
  precise::PictureFormat m_outputFormat;
  precise::CStabilizer m_stabilizer;
  FramePool m_held;
  Y4mFrame m_output;
  std::optional<MotionLog> m_log;
  std::optional<Y4mWriter> m_writer;
  std::int64_t m_framesTaken = 0;
};

}  // namespace

std::unique_ptr<Pipeline> MakePrecisePipeline(const Options& options, std::FILE* input, std::FILE* output) {
  Y4mReader reader = OpenInput(input);
  const precise::PictureFormat format = reader.Facts().format;
  const precise::Settings settings = MakePreciseSettings(options, reader.Facts());
  try {
    return std::make_unique<PrecisePipeline>(options, std::move(reader), settings, output);
  } catch (const std::bad_alloc&) {
    throw WorkError("not enough memory for a window of " + std::to_string(settings.window) + " frames of " +
                    std::to_string(format.width) + "x" + std::to_string(format.height) +
                    "; a shorter --window needs less");
  }
}

FrameSize ReadOutputSize(const Options& options, std::FILE* input) {
  if (options.engine != Engine::Precise) return GetOutputSize(MakeClassicSettings(options), options.size);
  const Y4mReader reader = OpenInput(input);
  const precise::PictureFormat format =
      precise::OutputFormat(reader.Facts().format, MakePreciseSettings(options, reader.Facts()));
  return {format.width, format.height};
}
