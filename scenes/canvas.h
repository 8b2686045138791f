#pragma once

#include <cstdint>
#include <utility>

#include "scenes/spline.h"

/// A rectangle in picture pixels.
struct Area {
  double left, top, right, bottom;
};

/// A picture with samples `pitch` pixels apart, the first of them at (left, top).
struct Canvas {
  FloatPlane samples;
  double left = 0, top = 0, pitch = 1;
};

/// Paints a noise-free picture with edges and texture at every scale, by the dead leaves model of natural
/// images: leaves of many sizes occlude each other (A. B. Lee, D. Mumford, J. Huang, "Occlusion models for
/// natural images", International Journal of Computer Vision 41, 2001). Grey values lie around zero, most of
/// them within 90. Samples are half a pixel apart. The same arguments give the same canvas.
Canvas PaintCanvas(Area area, std::uint32_t seed);

/// Interpolates a canvas at positions in picture pixels.
class View {
 public:
  explicit View(Canvas canvas)
      : m_spline(std::move(canvas.samples)),
        m_left(canvas.left),
        m_top(canvas.top),
        m_scale(1 / canvas.pitch) {}

  bool Holds(double x, double y) const { return m_spline.Holds(Across(x), Down(y)); }
  float At(double x, double y) const { return m_spline.At(Across(x), Down(y)); }

  /// Slopes are per pixel.
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
