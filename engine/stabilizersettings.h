#pragma once

#include <array>
#include <cstdint>

#include "kernel/kernelparams.h"

/// A snapshot of the settings. A new record holds the defaults. Numbers may have any 32-bit value, because
/// puts check no range.
struct StabilizerSettings {
  bool Enabled = true;
  Rect ROI = {0, 0, 10000, 10000};  ///< pixels of the input frame, to which it is clipped
  bool ROIEnabled = false;
  std::int32_t GlobalEstimationCoefficients = 0;
  std::int32_t GlobalEstimationQuality = 2;             ///< 0 … 3 for quality 1 (finest) … 4
  std::int32_t PathSmoothingLevel = 32;                 ///< window length in frames
  std::array<std::uint8_t, 3> BkFillColor = {0, 0, 0};  ///< blue, green, red
  std::int32_t LeftRightCropMargin = 0;                 ///< pixels at each side
  std::int32_t TopBottomCropMargin = 0;                 ///< pixels at each side
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

/// Swaps edges in the wrong order, widens an empty side to one pixel, and clips to the frame. All zeros when
/// the region lies outside the frame.
Rect NormalizeRoi(Rect roi, FrameSize frame);

/// Limits each margin to 0 … one pixel less than half the frame's side.
CropMargins ClampCropMargins(CropMargins margins, FrameSize frame);

/// Whether cropping is on and the clipping option is crop.
bool IsCropping(const StabilizerSettings& settings);

/// Whether stabilization is enabled and makes output frames smaller than input frames.
bool ChangesFrameSize(const StabilizerSettings& settings);

/// The stabilizer's output size for frames of size `frame`, enabled or not. Only the clipping option crop
/// makes it smaller.
FrameSize GetOutputSize(const StabilizerSettings& settings, FrameSize frame);

/// The kernel's parameters for frames of size `frame`.
KernelParams MakeKernelParams(const StabilizerSettings& settings, FrameSize frame);
