#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "scenes/canvas.h"

struct Point {
  double x, y;
};

/// A rotation followed by a shift.
struct RigidMap {
  double cosine, sine, x, y;

  Point Of(double right, double down) const {
    return {x + cosine * right + sine * down, y - sine * right + cosine * down};
  }
};

/// The pose of a camera over its canvas: the centre of its picture in pixels, y downward, and its roll,
/// counterclockwise.
struct Pose {
  double x = 0, y = 0, degrees = 0;

  /// Maps points of the picture, relative to its centre, to points of the canvas; and back.
  RigidMap ToCanvas() const;
  RigidMap ToPicture() const;
};

struct FilmFrame {
  Pose camera;
  Pose object;  ///< the centre of the foreground object, in canvas coordinates
  int shot = 0;
  double gain = 1, bias = 0;  ///< of the exposure
};

/// The chroma of every pixel of every film. No stabilizer fills uncovered pixels with it.
constexpr unsigned char kFilmU = 118, kFilmV = 138;

/// A synthetic clip with a known camera path.
struct Film {
  std::string_view name;
  int width = 0, height = 0;
  double contrast = 1;
  double noise = 0;        ///< standard deviation, in grey levels
  double objectShare = 0;  ///< share of the picture's area that the foreground object covers
  std::vector<FilmFrame> frames;
  std::vector<Area> shots;  ///< what the camera sees in each shot, and a margin on each side
};

std::vector<std::string_view> FilmNames();

/// The film of a scene. NAME_WxH has another size. NAME@FRAMES ends after so many frames; a film of one shot
/// can be made longer, too. Throws std::invalid_argument, which lists the names, for an unknown scene.
Film FindFilm(const std::string& name);

/// The canvas of a shot.
Canvas PaintShot(const Film& film, int shot);
