#pragma once

#include <vector>

#include "kernel/frame.h"
#include "kernel/kernelparams.h"
#include "kernel/loops.h"

/// What the compensation of every frame of a stream needs.
struct Compensation {
  /// `params` must have margins below half a frame and a known clipping option. Throws std::bad_alloc.
  explicit Compensation(const KernelParams& params);

  FrameGeometry frame;
  std::int32_t cropMarginX = 0, cropMarginY = 0;
  Interpolation interpolation = Interpolation::Bilinear;
  ClippingOption clippingOption = ClippingOption::Outline;
  std::int32_t zoomStep = 32;  ///< magnification is 32 / zoomStep
  Rect outputRect = {};        ///< memory columns and rows that the warp covers
  std::vector<std::uint8_t> backgroundRow;
};

/// The zoom step, 16 … 32. With crop and stretch, 32 / step is the magnification nearest to the one that
/// hides the margins; otherwise the step is 32, no magnification.
std::int32_t ComputeZoom(ClippingOption clippingOption, std::int32_t width, std::int32_t height,
                         std::int32_t cropMarginX, std::int32_t cropMarginY);

/// Moves the frame `source` by `correction`, clips it, and writes it to the frame `output`. The two do not
/// overlap. Pixels that the moved picture does not cover get the background colour. |dx| must be below the
/// frame's width and |dy| below its height.
void CompensateFrame(const Compensation& compensation, const std::uint8_t* source,
                     const MotionRecord& correction, std::uint8_t* output, const KernelOps& ops);
