#pragma once

#include <array>
#include <cstddef>

#include "precise/loops.h"
#include "precise/similarity.h"

namespace precise {

/// Unknowns of a Gauss-Newton step: shift in x and in y, roll and zoom at the radius, gain, offset.
enum Unknown : std::size_t { kShiftX, kShiftY, kRoll, kZoom, kGain, kOffset, kUnknowns };

using UnknownVector = std::array<double, kUnknowns>;

/// Weighted least squares for one step. Lengths are in samples as they are shown.
struct NormalEquations {
  std::array<UnknownVector, kUnknowns> matrix = {};  ///< symmetric; the lower triangle is filled
  UnknownVector right = {};

  /// Adds a cell whose middle is `centre` away from the picture's. Roll and zoom are counted as the way of a
  /// point at `radius`.
  void AddCell(const CellSums& sums, Complex centre, double radius, double pixelAspect);

  /// Keeps the unknown at 0.
  void Hold(Unknown unknown);

  /// Solves by Cholesky's method; false when there is no definite answer.
  bool Solve(UnknownVector& solution) const;
};

}  // namespace precise
