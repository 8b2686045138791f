#pragma once

#include <windows.h>

#include <bit>
#include <cstdint>
#include <mferror.h>
#include <utility>
#include <vector>

#include "engine/testenvironment.h"
#include "kernel/frame.h"
#include "mft/mft_vstabilize.h"
#include "module/samples.h"

inline constexpr std::int32_t kWidth = 64, kHeight = 48;
inline constexpr LONGLONG kFrameTime = 333333;

/// A sample over a buffer of that many bytes, all of them in use.
Microsoft::WRL::ComPtr<IMFSample> Sample(std::size_t bytes, std::uint8_t fill = 0);

/// A new transform for each case, which must release it completely.
class Transform : public EngineTest {
 protected:
  Transform();
  ~Transform() override;

  void SetTypes(std::int32_t width = kWidth, std::int32_t height = kHeight);
  void AcceptProposal();

  /// Switches cropping on with the option crop.
  void Crop(LONG leftRight, LONG topBottom);

  HRESULT Output(IMFSample* sample);

  /// Feeds frame `number`, marked by its pixels, times and attributes, and fetches an output.
  HRESULT Feed(int number);

  /// Expects the last output to be frame `number` by its times, its attributes, and a pixel that no fill
  /// covers.
  void ExpectDelivered(int number) const;

  bool IsHoldingASample();

  static std::size_t FrameBytes(std::int32_t width = kWidth, std::int32_t height = kHeight);

  Microsoft::WRL::ComPtr<IMFTransform> m_pTransform;
  Microsoft::WRL::ComPtr<IVKFVStabilize> m_pSettings;
  Microsoft::WRL::ComPtr<IMFSample> m_pOutput;
};
