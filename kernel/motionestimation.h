#pragma once

#include <span>
#include <vector>

#include "base/matrix.h"
#include "kernel/gaussianpyramid.h"
#include "kernel/kernelparams.h"
#include "kernel/loops.h"

// Global motion by gradient-based least-squares registration, coarse to fine over a pyramid:
// B. D. Lucas and T. Kanade, "An iterative image registration technique with an application to stereo
// vision", 1981; J. R. Bergen et al., "Hierarchical model-based motion estimation", 1992.

/// Work space of the rotation estimator for planes up to this size. A rotated plane is made and summed row by
/// row, so that the rows at work stay in the cache.
struct RotationScratch {
  RotationScratch() = default;
  RotationScratch(std::int32_t width, std::int32_t height);

  /// The columns of a row that have a source: turned by the angle, and turned by both half a degree less and
  /// half a degree more.
  struct RowRuns {
    ColumnRun exact, turned;
  };

  std::vector<RowRuns> usable;  ///< of each row
  Plane rows;                   ///< three rotated rows in turn, and the last row turned less and more
};

/// The samples of a `width` × `height` level that can be compared at displacement (x, y): the displaced
/// sample and its neighbours lie inside the plane, clear of its borders. Columns and rows; empty where there
/// are none.
Rect ComparableSamples(std::int32_t width, std::int32_t height, std::int64_t x, std::int64_t y);

/// The finest level whose estimate counts at this quality, if there are that many levels.
std::size_t FinestLevel(std::uint32_t quality);

/// Motion from the previous to the newest frame in pixels of level 0. `quality` chooses the finest level
/// used: 2 stops at level 1, 3 at level 2, any other at level 0. Unknown coefficients estimate nothing. Only
/// the rotation estimator uses `scratch`.
MotionRecord EstimateMotion(std::span<GaussianPyramidCalcParams> levels, std::uint32_t coefficients,
                            std::uint32_t quality, RotationScratch& scratch, const KernelOps& ops);
