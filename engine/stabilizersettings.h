#pragma once

#include <array>
#include <cstdint>

#include "kernel/kernelparams.h"

/// Snapshot of all settings, as the kernel is initialised with them. Any 32-bit value may stand in the
/// numbers; they are made safe where they are used.
struct StabilizerSettings {
  bool Enabled = true;
  Rect ROI = {0, 0, 10000, 10000};  ///< clipped to the frame, so larger than any frame means the whole of it
  bool ROIEnabled = false;
  std::int32_t GlobalEstimationCoefficients = 0;
  std::int32_t GlobalEstimationQuality = 2;
  std::int32_t PathSmoothingLevel = 32;                 ///< window length in frames
  std::array<std::uint8_t, 3> BkFillColor = {0, 0, 0};  ///< blue, green, red
  std::int32_t LeftRightCropMargin = 0;                 ///< pixels a side
  std::int32_t TopBottomCropMargin = 0;                 ///< pixels a side
  bool CropEnabled = false;
  std::int32_t InterpolationType = 1;
  std::int32_t ClippingOption = 0;
  bool UseAdvancedEngine = false;
  bool AdvancedEngineAvailable = false;
};

struct FrameSize {
  std::int32_t width, height;
};

struct CropMargins {
  std::int32_t leftRight, topBottom;
};

/// Orders the edges, gives an empty side one pixel, and clips to the frame; all zero when nothing is left.
Rect NormalizeRoi(Rect roi, FrameSize frame);

/// Limits each margin to 0 … half the frame less one pixel.
CropMargins ClampCropMargins(CropMargins margins, FrameSize frame);

/// Whether the clipping option is crop, and cropping is on.
bool IsCropping(const StabilizerSettings& settings);

/// Whether settings make frames come out smaller.
bool ChangesFrameSize(const StabilizerSettings& settings);

/// Size of the frames that come out for frames of size `frame`: smaller only when cropping with the option
/// crop.
FrameSize GetOutputSize(const StabilizerSettings& settings, FrameSize frame);

/// What the kernel is initialised with for frames of size `frame`.
KernelParams MakeKernelParams(const StabilizerSettings& settings, FrameSize frame);
