#pragma once

#include <array>

#include "base/matrix.h"

/// One channel of a picture.
using FloatPlane = Matrix<float>;

/// The plane convolved with 1 4 6 4 1 on both axes, with taps `spacing` samples apart. Mirrors the plane at
/// its edges.
FloatPlane Blurred(const FloatPlane& plane, int spacing = 1);

/// Every second sample of every second row, from the first on.
FloatPlane Halved(const FloatPlane& plane);

/// Weights of the cubic B-spline for four samples in a row, at `t` between the second and the third.
template <class Real>
std::array<Real, 4> SplineWeights(Real t) {
  const Real s = 1 - t;
  return {s * s * s / 6, (4 + t * t * (3 * t - 6)) / 6, (4 + s * s * (3 * s - 6)) / 6, t * t * t / 6};
}

/// Interpolates a plane by the cubic B-spline through all samples (M. Unser, "Splines: a perfect fit for
/// signal and image processing", IEEE Signal Processing Magazine 16(6), 1999).
class Spline {
 public:
  struct Value {
    float value, slopeX, slopeY;
  };

  explicit Spline(FloatPlane samples);

  /// True for the positions that `At` and `WithSlopes` take.
  bool Holds(double x, double y) const {
    return x >= 1 && y >= 1 && x < m_coefficients.Width() - 2 && y < m_coefficients.Height() - 2;
  }

  float At(double x, double y) const;
  Value WithSlopes(double x, double y) const;

 private:
  FloatPlane m_coefficients;
};
