#include "host/kernelstabilizer.h"

#include <new>

KernelStabilizer::KernelStabilizer(const StabilizerSettings& settings, FrameSize size, const KernelOps& ops,
                                   const std::string& motionFile)
    : m_layout(settings, size), m_kernel(ops), m_buffer(static_cast<std::size_t>(m_layout.bufferBytes)) {
  if (!motionFile.empty()) m_motionLog.emplace(motionFile);
  if (!m_kernel.Initialize(MakeKernelParams(settings, size))) throw std::bad_alloc();
  m_layout.FillTail(m_buffer.data());
}

std::optional<StabilizedFrame> KernelStabilizer::Process(bool repeatNewest) {
  bool noOutput = false;
  if (!m_kernel.ProcessFrame(m_buffer.data(), repeatNewest, &noOutput)) throw std::bad_alloc();
  if (m_motionLog && !repeatNewest) m_motions.push_back(m_kernel.LatestMotion());
  if (noOutput) return std::nullopt;
  if (m_motionLog) {
    const MotionRecord motion = m_motions.front(), correction = m_kernel.LatestCorrection();
    m_motions.pop_front();
    m_motionLog->WriteLine(m_framesOut++, motion.dx, motion.dy, motion.theta, correction.dx, correction.dy,
                           correction.theta);
  }
  return StabilizedFrame{m_buffer.data(), m_layout.pitchBytes};
}

void KernelStabilizer::Finish() {
  if (m_motionLog) m_motionLog->Close();
}
