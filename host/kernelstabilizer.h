#pragma once

#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "host/motionlog.h"
#include "host/stabilizer.h"
#include "kernel/stabilizevideokernel.h"

/// The kernel, driven directly. Writes the motion log when one is asked for.
class KernelStabilizer final : public Stabilizer {
 public:
  /// Writes no log where `motionFile` is empty. Throws WorkError and std::bad_alloc.
  KernelStabilizer(const StabilizerSettings& settings, FrameSize size, const KernelOps& ops,
                   const std::string& motionFile);

  std::uint8_t* InputFrame() override { return m_buffer.data(); }
  std::optional<StabilizedFrame> Process(bool repeatNewest) override;
  void Finish() override;

 private:
  OutputLayout m_layout;
  CStabilizeVideoKernel m_kernel;
  std::optional<MotionLog> m_motionLog;
  std::deque<MotionRecord> m_motions;  // of the frames held
  std::int64_t m_frame = 0;            // the next one out
  std::vector<std::uint8_t> m_buffer;  // of the frame that comes in and of the one that goes out
};
