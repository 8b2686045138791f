#pragma once

#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "host/motionlog.h"
#include "host/stabilizer.h"
#include "kernel/stabilizevideokernel.h"

/// Drives the kernel directly, and writes the motion log.
class KernelStabilizer final : public Stabilizer {
 public:
  /// Writes no log if `motionFile` is empty. Throws WorkError and std::bad_alloc.
  KernelStabilizer(const StabilizerSettings& settings, FrameSize size, const KernelOps& ops,
                   const std::string& motionFile);

  std::uint8_t* InputFrame() override { return m_buffer.data(); }
  std::optional<StabilizedFrame> Process(bool repeatNewest) override;
  void Finish() override;

 private:
  OutputLayout m_layout;
  CStabilizeVideoKernel m_kernel;
  std::optional<MotionLog> m_motionLog;
  std::deque<MotionRecord> m_motions;  // of the frames in the delay line
  std::int64_t m_framesOut = 0;
  std::vector<std::uint8_t> m_buffer;  // the kernel replaces the input frame by the output frame
};
