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

/// Memory of the rotation estimator for planes up to `width` × `height`. It rotates and sums a plane row by
/// row, so that the rows in use stay in the cache.
struct RotationScratch {
  RotationScratch() = default;
  RotationScratch(std::int32_t width, std::int32_t height);

  /// The columns of a row that have a source: in `exact` when turned by the angle, in `turned` both when
  /// turned half a degree less and when turned half a degree more.
  struct RowRuns {
    ColumnRun exact, turned;
  };

  std::vector<RowRuns> usable;  ///< for each row
  Plane rows;                   ///< the three newest rotated rows, and one row turned less and turned more
};

/// The samples of a `width` × `height` level that can be compared at displacement (x, y): the displaced
/// sample and its neighbours lie inside the plane, clear of its borders. The result is in plane columns and
/// rows. Where there are none, `left` is not below `right`, or `top` not below `bottom`.
Rect ComparableSamples(std::int32_t width, std::int32_t height, std::int64_t x, std::int64_t y);

/// The finest level that the estimation reaches: level 1 for quality value 2, level 2 for 3, otherwise level
/// 0. A pyramid with fewer levels ends at its coarsest.
std::size_t FinestLevel(std::uint32_t quality);

/// Motion from the previous to the newest frame, in pixels of level 0, estimated from the coarsest level to
/// `FinestLevel(quality)`. With unknown `coefficients` nothing is estimated. Only the rotation estimator uses
/// `scratch`.
MotionRecord EstimateMotion(std::span<GaussianPyramidCalcParams> levels, std::uint32_t coefficients,
                            std::uint32_t quality, RotationScratch& scratch, const KernelOps& ops);
