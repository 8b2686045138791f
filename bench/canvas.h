#pragma once

#include <cstdint>
#include <vector>

#include "plane.h"

/// A rectangle in picture pixels.
struct Area {
  double left, top, right, bottom;
};

/// What the camera of a made-up scene looks at: free of noise, with edges and texture at every scale, known
/// between pixels as well. Leaves of many sizes lie on each other, as in natural images (A. B. Lee, D.
/// Mumford, J. Huang, "Occlusion models for natural images", International Journal of Computer Vision 41,
/// 2001). Grey values lie around zero, most of them within 90. The same arguments give the same canvas.
Plane PaintCanvas(Area area, std::uint32_t seed);

/// A canvas's samples lie half a picture's pixel apart.
constexpr double CanvasPitch = 0.5;

/// A canvas at one scale, in picture pixels.
class View {
 public:
  View(const Plane& samples, Area area, double pitch) : m_spline(samples), m_area(area), m_scale(1 / pitch) {}

  bool Holds(double x, double y) const { return m_spline.Holds(Across(x), Down(y)); }
  float At(double x, double y) const { return m_spline.At(Across(x), Down(y)); }

  /// With slopes a picture's pixel.
  Spline::Value WithSlopes(double x, double y) const {
    const Spline::Value found = m_spline.WithSlopes(Across(x), Down(y));
    const auto scale = static_cast<float>(m_scale);
    return {found.value, found.slopeX * scale, found.slopeY * scale};
  }

 private:
  double Across(double x) const { return (x - m_area.left) * m_scale; }
  double Down(double y) const { return (y - m_area.top) * m_scale; }

  Spline m_spline;
  Area m_area;
  double m_scale;
};
