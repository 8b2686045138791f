#pragma once

#include <optional>
#include <vector>

#include "host/motionlog.h"
#include "host/options.h"
#include "host/stabilizer.h"
#include "kernel/stabilizevideokernel.h"

/// The kernel, driven directly. Writes the motion log when one is asked for.
class KernelStabilizer final : public Stabilizer {
 public:
  /// Throws WorkError and std::bad_alloc.
  explicit KernelStabilizer(const Options& options);

  std::uint8_t* InputFrame() override { return m_buffer.data(); }
  std::optional<StabilizedFrame> Process(bool repeatNewest) override;
  void Finish() override;

 private:
  OutputLayout m_layout;
  CStabilizeVideoKernel m_kernel;
  std::optional<MotionLog> m_motionLog;
  std::vector<std::uint8_t> m_buffer;  // of the frame that comes in and of the one that goes out
};
