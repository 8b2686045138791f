#include <optional>
#include <utility>

#include "host/kernelstabilizer.h"
#include "host/pipeline.h"
#include "host/platform.h"
#include "host/rawvideo.h"
#include "host/settings.h"
#include "host/transform.h"

namespace {

std::unique_ptr<Stabilizer> MakeStabilizer(const Options& options, const StabilizerSettings& settings) {
  if constexpr (kHasTransform)
    if (options.engine == Engine::Transform)
      return MakeTransformStabilizer(settings, options.size, options.registered);
  return std::make_unique<KernelStabilizer>(settings, options.size,
                                            SelectOps(DetectCpuFeatures(), options.simd), options.motionFile);
}

class ClassicPipeline final : public Pipeline {
 public:
  ClassicPipeline(const Options& options, const StabilizerSettings& settings, std::FILE* input,
                  std::FILE* output)
      : m_reader(input, options.size),
        m_writer(output, GetOutputSize(settings, options.size)),
        m_pStabilizer(MakeStabilizer(options, settings)) {}

  bool Take() override {
    if (!m_reader.Read(m_pStabilizer->InputFrame())) return false;
    m_hasNewFrame = true;
    ++m_framesHeld;
    return true;
  }

  void EndInput() override { m_inputEnded = true; }

  bool Deliver() override {
    std::optional<StabilizedFrame> frame;
    while (!frame && (m_hasNewFrame || (m_inputEnded && m_framesHeld > 0)))
      frame = m_pStabilizer->Process(!std::exchange(m_hasNewFrame, false));
    if (!frame) return false;
    m_writer.Write(frame->pixels, frame->pitchBytes);
    --m_framesHeld;
    return true;
  }

  void Finish() override { m_pStabilizer->Finish(); }

 private:
  RawVideoReader m_reader;
  RawVideoWriter m_writer;
  std::unique_ptr<Stabilizer> m_pStabilizer;
  std::int64_t m_framesHeld = 0;
  bool m_hasNewFrame = false, m_inputEnded = false;
};

}  // namespace

std::unique_ptr<Pipeline> MakeClassicPipeline(const Options& options, std::FILE* input, std::FILE* output) {
  return std::make_unique<ClassicPipeline>(options, MakeClassicSettings(options), input, output);
}
