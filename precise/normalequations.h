#pragma once

#include <array>
#include <cstddef>

#include "precise/loops.h"
#include "precise/similarity.h"

namespace precise {

/// Unknowns of a Gauss-Newton step: shift along x and y; roll and zoom, as the movement that they give a
/// point at the radius; gain and offset of the brightness.
enum Unknown : std::size_t { kShiftX, kShiftY, kRoll, kZoom, kGain, kOffset, kUnknowns };

using UnknownVector = std::array<double, kUnknowns>;

/// The weighted least squares of one step. Lengths are in sample heights.
struct NormalEquations {
  std::array<UnknownVector, kUnknowns> matrix = {};  ///< symmetric; the lower triangle is filled
  UnknownVector right = {};

  /// Adds a cell whose middle is at `middle` from the picture's centre. Roll and zoom move all samples of the
  /// cell as they move its middle. They are measured at a distance of `radius` from the picture's centre.
  void AddCell(const CellSums& sums, Complex middle, double radius, double pixelAspect);

  /// Keeps the unknown at 0.
  void Hold(Unknown unknown);

  /// Solves by Cholesky decomposition. False where the matrix is not positive definite.
  bool Solve(UnknownVector& solution) const;
};

}  // namespace precise
