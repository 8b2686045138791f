#pragma once

#include <cstdint>
#include <memory>

#include "kernel/dispatch.h"
#include "kernel/kernelparams.h"

/// Stabilizes one stream of 24-bit frames in place, with a delay of half the smoothing window.
///
/// Frames are padded and bottom-up (see `FrameGeometry`). Only one thread may call at a time. Methods return
/// false when they fail.
class CStabilizeVideoKernel {
 public:
  explicit CStabilizeVideoKernel(const KernelOps& ops = BestOps()) noexcept;
  virtual ~CStabilizeVideoKernel();
  CStabilizeVideoKernel(const CStabilizeVideoKernel&) = delete;
  CStabilizeVideoKernel& operator=(const CStabilizeVideoKernel&) = delete;

  /// Sets up for a stream; may be called again at any time. With a region of interest that is empty or leaves
  /// the frame this succeeds, and frames pass through unchanged. Otherwise it fails, and the kernel is not
  /// initialized, for a margin that is negative or half a frame or more, an unknown clipping option or window
  /// length, a frame of more than 2^31 - 1 bytes or 2^23 pixels a side, or when memory runs out.
  bool Initialize(const KernelParams& params) noexcept;
  bool IsInitialized() const noexcept { return m_initialized; }

  /// Takes the frame at `pixels` as the next one and replaces it by the stabilized frame that leaves the
  /// delay line. With the crop option that frame is smaller; its rows are `PackedCropPitch` bytes apart.
  ///
  /// With `repeatPrevious` the newest frame seen so far, if there is one, is taken again instead of the
  /// buffer's content. `noOutput` becomes true while the delay line fills: the buffer must not be delivered
  /// then. It is not changed when frames pass through unchanged. False before a successful `Initialize`,
  /// after `Release`, and when memory for the delay line runs out.
  bool ProcessFrame(std::uint8_t* pixels, bool repeatPrevious, bool* noOutput) noexcept;

  /// Drops the frames and motions seen so far and keeps the set-up.
  void Reset() noexcept;

  /// Frees all memory; the next frame needs another `Initialize`. A kernel that passes frames through
  /// unchanged goes on doing so (kept for compatibility).
  void Release() noexcept;

  /// Motion between the two newest frames; zeros before there are two.
  MotionRecord LatestMotion() const noexcept;

  /// Correction of the frame delivered last; zeros before the first.
  MotionRecord LatestCorrection() const noexcept;

 private:
  struct Stream;

  const KernelOps* m_pOps;
  bool m_passThrough = false;
  bool m_initialized = false;
  std::unique_ptr<Stream> m_pStream;
};
