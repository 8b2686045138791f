#pragma once

#include <vector>

#include "kernel/frame.h"
#include "kernel/kernelparams.h"
#include "kernel/loops.h"

/// Everything about the compensation that stays the same from frame to frame.
struct Compensation {
  /// `params` have been checked by the kernel: margins below half a frame, a known clipping option.
  /// Throws std::bad_alloc.
  explicit Compensation(const KernelParams& params);

  FrameGeometry frame;
  std::int32_t cropMarginX = 0, cropMarginY = 0;
  Interpolation interpolation = Interpolation::Bilinear;
  ClippingOption clippingOption = ClippingOption::Outline;
  std::int32_t zoomStep = 32;  ///< magnification is 32 / zoomStep
  Rect outputRect = {};        ///< memory columns and rows that the warp covers
  std::vector<std::uint8_t> backgroundRow;
};

/// The step, 16 … 32, of the magnification that hides margins of this size.
std::int32_t ComputeZoom(ClippingOption clippingOption, std::int32_t width, std::int32_t height,
                         std::int32_t cropMarginX, std::int32_t cropMarginY);

/// Writes `source`, moved by `correction` and clipped, into `output`; both are whole frames and do not
/// overlap. What the moved picture does not cover gets the background colour. |dx| and |dy| are below the
/// frame's size.
void CompensateFrame(const Compensation& compensation, const std::uint8_t* source,
                     const MotionRecord& correction, std::uint8_t* output, const KernelOps& ops);
