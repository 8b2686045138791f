#pragma once

#include <cstdint>
#include <memory>

#include "kernel/dispatch.h"
#include "kernel/kernelparams.h"

/// Stabilizes one stream of 24-bit frames in place, with a delay of half the smoothing window.
///
/// Frames are padded and bottom-up (see `FrameGeometry`). Calls are made by one thread at a time. Failure is
/// reported by false.
class CStabilizeVideoKernel {
 public:
  explicit CStabilizeVideoKernel(const KernelOps& ops = BestOps()) noexcept;
  virtual ~CStabilizeVideoKernel();
  CStabilizeVideoKernel(const CStabilizeVideoKernel&) = delete;
  CStabilizeVideoKernel& operator=(const CStabilizeVideoKernel&) = delete;

  /// Sets up for a stream; may be called again at any time. A region of interest that is empty or leaves the
  /// frame is accepted and makes every frame pass unchanged. False, and not initialized, for a margin of half
  /// a frame or more, an unknown clipping option or window length, a frame of more than 2^31 - 1 bytes or
  /// 2^23 pixels a side, or when memory runs out.
  bool Initialize(const KernelParams& params) noexcept;
  bool IsInitialized() const noexcept { return m_initialized; }

  /// Takes the frame at `pixels` as the next one and replaces it by the stabilized frame that leaves the
  /// delay line. With the crop option that frame is smaller; its rows start at `pixels` at a distance of
  /// `PackedCropPitch`.
  ///
  /// With `repeatPrevious` the newest frame seen so far, if there is one, is taken again instead of the
  /// buffer's content. `noOutput` becomes true while the delay line fills: the buffer must not be delivered
  /// then. It stays as it is when frames pass unchanged. False before a successful `Initialize` or after
  /// `Release`, and when memory for the delay line runs out.
  bool ProcessFrame(std::uint8_t* pixels, bool repeatPrevious, bool* noOutput) noexcept;

  /// Forgets the frames and motions seen so far and keeps the set-up.
  void Reset() noexcept;

  /// Frees everything; the next frame needs another `Initialize`. A kernel that was set up to let frames pass
  /// unchanged still does so.
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
