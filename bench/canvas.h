#pragma once

#include <cstdint>
#include <vector>

#include "plane.h"

/// A rectangle in picture pixels.
struct Area {
  double left, top, right, bottom;
};

/// A picture whose samples lie `pitch` pixels apart; the first one's place is given.
struct Canvas {
  Plane samples;
  double left = 0, top = 0, pitch = 1;
};

/// What the camera of a made-up scene looks at: free of noise, with edges and texture at every scale, known
/// between pixels as well. Leaves of many sizes lie on each other, as in natural images (A. B. Lee, D.
/// Mumford, J. Huang, "Occlusion models for natural images", International Journal of Computer Vision 41,
/// 2001). Grey values lie around zero, most of them within 90. The same arguments give the same canvas, half
/// a pixel apart.
Canvas PaintCanvas(Area area, std::uint32_t seed);

/// A canvas between its samples.
class View {
 public:
  explicit View(const Canvas& canvas)
      : m_spline(canvas.samples), m_left(canvas.left), m_top(canvas.top), m_scale(1 / canvas.pitch) {}

  bool Holds(double x, double y) const { return m_spline.Holds(Across(x), Down(y)); }
  float At(double x, double y) const { return m_spline.At(Across(x), Down(y)); }

  /// With slopes a pixel.
  Spline::Value WithSlopes(double x, double y) const {
    const Spline::Value found = m_spline.WithSlopes(Across(x), Down(y));
    const auto scale = static_cast<float>(m_scale);
    return {found.value, found.slopeX * scale, found.slopeY * scale};
  }

 private:
  double Across(double x) const { return (x - m_left) * m_scale; }
  double Down(double y) const { return (y - m_top) * m_scale; }

  Spline m_spline;
  double m_left, m_top, m_scale;
};
