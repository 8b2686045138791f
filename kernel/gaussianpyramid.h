#pragma once

#include <vector>

#include "base/matrix.h"
#include "kernel/frame.h"
#include "kernel/kernelparams.h"
#include "kernel/loops.h"

/// One pyramid level: its planes of the previous and the newest frame, and the motion that was estimated
/// there. Planes are bottom-up like the frame.
struct GaussianPyramidCalcParams {
  /// A level that does not keep planes only feeds the next coarser one. Its current plane holds a few rows in
  /// turn, and it has no previous plane.
  GaussianPyramidCalcParams(std::int32_t levelWidth, std::int32_t levelHeight, bool keepsPlanes);

  /// A row of the newest frame's plane. Where planes are not kept, a later row soon takes its place.
  std::int16_t* CurrentRow(std::int32_t row) { return currentPlane.Row(row % currentPlane.Height()); }

  std::int32_t width, height;
  Plane previousPlane, currentPlane;
  /// Samples, doubled for the next finer level except at level 0.
  std::int32_t dx = 0, dy = 0;
  double theta = 0;    ///< degrees
  int iterations = 0;  ///< that the estimate took
};

/// Levels for a region of `width` × `height` pixels, finest first: one to five, each beyond the first at
/// least 80 × 80. Level `finestKept` and all coarser ones keep their planes; the last level always does.
/// Throws std::bad_alloc.
std::vector<GaussianPyramidCalcParams> MakePyramid(std::int32_t width, std::int32_t height,
                                                   std::size_t finestKept = 0);

/// Makes the current planes the previous ones and fills new current planes from the region `roi` of the
/// frame. `roi` lies inside the frame and has the size of level 0. The frame's bytes go to `copy` on the way,
/// while they are in the cache.
void BuildPyramid(std::vector<GaussianPyramidCalcParams>& levels, const std::uint8_t* pixels,
                  const FrameGeometry& frame, const Rect& roi, std::uint8_t* copy, const KernelOps& ops);
