#pragma once

#include <vector>

#include "base/matrix.h"
#include "kernel/frame.h"
#include "kernel/kernelparams.h"
#include "kernel/loops.h"

/// One pyramid level: its planes of the previous and the newest frame, and the motion that was estimated
/// between them. Planes are bottom-up like the frame.
struct GaussianPyramidCalcParams {
  /// A level that does not keep planes only feeds the next coarser one. It has no previous plane, and its
  /// current plane holds the newest rows only.
  GaussianPyramidCalcParams(std::int32_t levelWidth, std::int32_t levelHeight, bool keepsPlanes);

  /// A row of the newest frame's plane. If planes are not kept, later rows overwrite it.
  std::int16_t* CurrentRow(std::int32_t row) { return currentPlane.Row(row % currentPlane.Height()); }

  std::int32_t width, height;
  Plane previousPlane, currentPlane;
  /// Displacement in samples; above level 0 in samples of the next finer level.
  std::int32_t dx = 0, dy = 0;
  double theta = 0;    ///< degrees
  int iterations = 0;  ///< of the estimate
};

/// One to five levels for a region of `width` × `height` pixels, finest first. All but the first have at
/// least 80 × 80 samples. Level `finestKept` and all coarser ones keep their planes; the last level always
/// does. Throws std::bad_alloc.
std::vector<GaussianPyramidCalcParams> MakePyramid(std::int32_t width, std::int32_t height,
                                                   std::size_t finestKept = 0);

/// Makes the current planes the previous ones and fills new current planes from the region `roi`, which lies
/// inside the frame and has the size of level 0. Also copies the whole frame to `copy`, so that its bytes are
/// read from memory once.
void BuildPyramid(std::vector<GaussianPyramidCalcParams>& levels, const std::uint8_t* pixels,
                  const FrameGeometry& frame, const Rect& roi, std::uint8_t* copy, const KernelOps& ops);
