#include "host/kernelstabilizer.h"

#include <new>

KernelStabilizer::KernelStabilizer(const Options& options)
    : m_layout(options.settings, options.size),
      m_kernel(options.ops ? *options.ops : BestOps()),
      m_buffer(static_cast<std::size_t>(m_layout.bufferBytes)) {
  if (!options.motionFile.empty()) m_motionLog.emplace(options.motionFile);
  if (!m_kernel.Initialize(MakeKernelParams(options.settings, options.size))) throw std::bad_alloc();
  m_layout.FillTail(m_buffer.data());
}

std::optional<StabilizedFrame> KernelStabilizer::Process(bool repeatNewest) {
  bool noOutput = false;
  if (!m_kernel.ProcessFrame(m_buffer.data(), repeatNewest, &noOutput)) throw std::bad_alloc();
  if (m_motionLog && !repeatNewest) m_motionLog->AddMotion(m_kernel.LatestMotion());
  if (noOutput) return std::nullopt;
  if (m_motionLog) m_motionLog->AddCorrection(m_kernel.LatestCorrection());
  return StabilizedFrame{m_buffer.data(), m_layout.pitchBytes};
}

void KernelStabilizer::Finish() {
  if (m_motionLog) m_motionLog->Close();
}
