#pragma once

#include <windows.h>

#include <mfapi.h>
#include <mfidl.h>
#include <mftransform.h>
#include <wrl/client.h>

#include "host/stabilizer.h"
#include "host/transformmodule.h"

/// Sets all settings of a transform, replacing those that the user has saved. The region's right edge becomes
/// its bottom edge. Throws WorkError.
void ConfigureTransform(IMFTransform* transform, const StabilizerSettings& settings);

/// Drives the transform as any host does.
class TransformStabilizer final : public Stabilizer {
 public:
  /// Throws WorkError.
  TransformStabilizer(const StabilizerSettings& settings, FrameSize size, bool registered);

  std::uint8_t* InputFrame() override;
  std::optional<StabilizedFrame> Process(bool repeatNewest) override;
  void Finish() override;

 private:
  /// A sample with one buffer. The buffer is locked while its pixels are written or read.
  class FrameSample {
   public:
    explicit FrameSample(std::ptrdiff_t sizeBytes);
    ~FrameSample() { Unlock(); }
    FrameSample(const FrameSample&) = delete;
    FrameSample& operator=(const FrameSample&) = delete;

    IMFSample* Sample() const { return m_pSample.Get(); }
    std::uint8_t* Lock();
    void Unlock();

   private:
    Microsoft::WRL::ComPtr<IMFMediaBuffer> m_pBuffer;
    Microsoft::WRL::ComPtr<IMFSample> m_pSample;
    BYTE* m_pBytes = nullptr;
  };

  void SetInputType(FrameSize size);
  void NegotiateOutputType();

  ComSession m_session{COINIT_MULTITHREADED};
  TransformModule m_module;
  Microsoft::WRL::ComPtr<IMFTransform> m_pTransform;
  OutputLayout m_layout;
  FrameSample m_input, m_output;
  std::int32_t m_framesToFill;  // that go in before the first one comes out
  LONGLONG m_time = 0;          // of the next input frame, in units of 100 ns
};
