#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "canvas.h"

struct Point {
  double x, y;
};

/// A turn, followed by a shift.
struct Movement {
  double cosine, sine, x, y;

  Point Of(double right, double down) const {
    return {x + cosine * right + sine * down, y - sine * right + cosine * down};
  }
};

/// Where a picture lies on its canvas: its centre in picture pixels, y downward, and its roll,
/// counterclockwise.
struct Pose {
  double x = 0, y = 0, degrees = 0;

  /// From points of the picture, counted from its centre, to those of the canvas; and back.
  Movement ToCanvas() const;
  Movement ToPicture() const;
};

struct SceneFrame {
  Pose camera;
  Pose object;  // what moves in front of the canvas: its centre, on the canvas's scale
  int shot = 0;
  double gain = 1, bias = 0;  // of the exposure
};

/// The chroma of every pixel of every scene; no stabilizer's background has it.
constexpr unsigned char SceneU = 118, SceneV = 138;

/// A made-up clip whose camera path is known.
struct Scene {
  std::string_view name;
  int width = 0, height = 0;
  double contrast = 1;
  double noise = 0;        // standard deviation, in grey levels
  double objectShare = 0;  // of the picture's area that something in front covers
  std::vector<SceneFrame> frames;
  std::vector<Area> shots;  // all that the shot's camera sees, and some more on each side
};

std::vector<std::string_view> SceneNames();

/// The scene of that name. NAME_WxH is one of another size. NAME@FRAMES is the beginning of one, or goes on
/// for so long if it has one shot. Throws a std::invalid_argument that lists the names when there is none.
Scene FindScene(const std::string& name);

/// What a shot's camera looks at.
Canvas PaintShot(const Scene& scene, int shot);
