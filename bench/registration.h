#pragma once

#include <vector>

#include "scenes/canvas.h"
#include "scenes/film.h"

/// The registration of a picture on a canvas: picture = gain · canvas + offset, with the canvas magnified by
/// zoom and seen from the pose.
struct Fit {
  Pose pose;
  double zoom = 1, gain = 1, offset = 0;
  double agreeing = 0;  ///< share of the samples that the canvas explains

  bool Succeeded() const { return agreeing > 0.4 && gain > 0.05; }
};

/// A picture, and for each of its samples 1 where it can be trusted, else 0.
struct Layer {
  FloatPlane grey, trust;
};

/// Registers pictures of one size on one canvas. The correlation of coarse layers finds the shift.
/// Gauss-Newton steps from coarse to fine refine shift, roll, zoom, gain and offset (S. Baker, I. Matthews,
/// "Lucas-Kanade 20 years on", International Journal of Computer Vision 56, 2004). Tukey's weights suppress
/// samples that do not show the canvas (P. Huber, "Robust statistics", 1981).
class Registration {
 public:
  Registration(Canvas canvas, int width, int height);

  /// The start is off by at most a seventh of the picture's width.
  Fit Find(const Layer& picture, const Fit& start) const;

 private:
  Point m_centre;
  std::vector<View> m_canvas;  // at the resolution of each layer of a picture, finest first
};
