#pragma once

#include <array>
#include <cstdint>

#include "kernel/kernelparams.h"

/// Snapshot of all settings. Numbers may have any 32-bit value; whoever uses one checks it.
struct StabilizerSettings {
  bool Enabled = true;
  Rect ROI = {0, 0, 10000, 10000};  ///< clipped to the frame
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

/// Whether output frames are smaller than input frames.
bool ChangesFrameSize(const StabilizerSettings& settings);

/// Size of the output frames for input frames of size `frame`. Only the clipping option crop makes them
/// smaller.
FrameSize GetOutputSize(const StabilizerSettings& settings, FrameSize frame);

/// What the kernel is initialised with for frames of size `frame`.
KernelParams MakeKernelParams(const StabilizerSettings& settings, FrameSize frame);
