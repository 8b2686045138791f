#pragma once

#include <vector>

#include "kernel/frame.h"
#include "kernel/kernelparams.h"
#include "kernel/loops.h"
#include "kernel/matrix.h"

/// One pyramid level: its planes of the previous and the newest frame, and the motion that was estimated
/// there. Planes are bottom-up like the frame.
struct GaussianPyramidCalcParams {
  GaussianPyramidCalcParams(std::int32_t levelWidth, std::int32_t levelHeight);

  std::int32_t width, height;
  Plane previousPlane, currentPlane;
  /// Samples, doubled for the next finer level except at level 0.
  std::int32_t dx = 0, dy = 0;
  double theta = 0;  ///< degrees
};

/// Levels for a region of `width` × `height` pixels, finest first: one to five, each beyond the first at
/// least 80 × 80. Throws std::bad_alloc.
std::vector<GaussianPyramidCalcParams> MakePyramid(std::int32_t width, std::int32_t height);

/// Makes the current planes the previous ones and fills new current planes from the region `roi` of the
/// frame. `roi` lies inside the frame and has the size of level 0.
void BuildPyramid(std::vector<GaussianPyramidCalcParams>& levels, const std::uint8_t* pixels,
                  const FrameGeometry& frame, const Rect& roi, const KernelOps& ops);
