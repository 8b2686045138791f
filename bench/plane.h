#pragma once

#include <cstddef>
#include <vector>

/// A picture of one channel in single precision, row by row.
struct Plane {
  Plane() = default;
  Plane(int planeWidth, int planeHeight)
      : width(planeWidth),
        height(planeHeight),
        samples(static_cast<std::size_t>(planeWidth) * static_cast<std::size_t>(planeHeight)) {}

  float* Row(int y) { return &samples[static_cast<std::size_t>(y) * static_cast<std::size_t>(width)]; }
  const float* Row(int y) const {
    return &samples[static_cast<std::size_t>(y) * static_cast<std::size_t>(width)];
  }

  int width = 0, height = 0;
  std::vector<float> samples;
};

/// The plane under the binomial filter 1 4 6 4 1, whose taps lie `spacing` samples apart; mirrored at the
/// edges.
Plane Blurred(const Plane& plane, int spacing = 1);

/// Every second sample of every second row, from the first on.
Plane Halved(const Plane& plane);

/// Samples between samples of a plane: cubic B-splines through all of them (M. Unser, "Splines: a perfect fit
/// for signal and image processing", IEEE Signal Processing Magazine 16(6), 1999).
class Spline {
 public:
  struct Value {
    float value, slopeX, slopeY;
  };

  explicit Spline(Plane samples);

  /// Whether At may be asked for a position.
  bool Holds(double x, double y) const {
    return x >= 1 && y >= 1 && x < m_coefficients.width - 2 && y < m_coefficients.height - 2;
  }

  float At(double x, double y) const;
  Value WithSlopes(double x, double y) const;

 private:
  Plane m_coefficients;
};
