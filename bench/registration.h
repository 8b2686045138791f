#pragma once

#include <vector>

#include "canvas.h"
#include "scenes.h"

/// How a picture lies on a canvas: picture = gain · canvas + offset at the pose; the canvas is magnified by
/// zoom.
struct Fit {
  Pose pose;
  double zoom = 1, gain = 1, offset = 0;
  double agreeing = 0;  ///< share of the picture that looks like the canvas

  bool Succeeded() const { return agreeing > 0.4 && gain > 0.05; }
};

/// A picture, and where it can be trusted (1 or 0).
struct Layer {
  Plane grey, trust;
};

/// Lays pictures of one size on one canvas, each for itself. A correlation of coarse pictures finds the
/// shift; then Gauss-Newton steps from coarse to fine, with Tukey's weights against what is no canvas, refine
/// shift, roll, zoom, gain and offset (S. Baker, I. Matthews, "Lucas-Kanade 20 years on", International
/// Journal of Computer Vision 56, 2004; P. Huber, "Robust statistics", 1981).
class Registration {
 public:
  Registration(Canvas canvas, int width, int height);

  /// From a start that is at most a seventh of the picture's width away.
  Fit Find(const Layer& picture, const Fit& start) const;

 private:
  Point m_centre;
  std::vector<View> m_canvas;  // as the layers of a picture would show it, finest first
};
