// Measures the camera path of a stabilized scene from its pixels:
//
//   measure_path SCENE [ZOOM] < video.y4m > path.csv
//
// SCENE is a name that make_scene takes. ZOOM is the stabilizer's magnification, 1 by default. The video is
// YUV4MPEG2 with 8-bit 4:2:0 samples. The result has a line a frame:
//
//   x, y, theta    the camera's pose, as make_scene writes it
//   found          1 when the pose could be measured, else 0
//   uncovered      share of the pixels that show background, or content outside the source frame
//   detail         variance of the Laplacian in the middle of the picture, a measure of sharpness
//
// Each frame is registered on the noise-free canvas by itself (registration.h), so errors do not add up.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>

#include "registration.h"
#include "scenes/film.h"
#include "video.h"

namespace {

bool ShowsBackground(const Video& video, int x, int y) {
  return std::abs(video.U(x, y) - kFilmU) + std::abs(video.V(x, y) - kFilmV) > 10;
}

/// Pixels that show background, and their neighbours, count as untrusted.
Layer ToLayer(const Video& video) {
  constexpr int reach = 2;
  const int width = video.Width(), height = video.Height();
  Layer layer;
  layer.grey = FloatPlane(width, height);
  layer.trust = FloatPlane(width, height);
  std::fill_n(layer.trust.Row(0), std::ptrdiff_t{width} * height, 1.0F);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      layer.grey.Row(y)[x] = video.Luma(y)[x];
      if (!ShowsBackground(video, x, y)) continue;
      for (int row = std::max(y - reach, 0); row <= std::min(y + reach, height - 1); ++row) {
        const int left = std::max(x - reach, 0), right = std::min(x + reach, width - 1);
        std::fill(layer.trust.Row(row) + left, layer.trust.Row(row) + right + 1, 0.0F);
      }
    }
  }
  return layer;
}

/// The share of pixels that show background, or content outside the source frame.
double UncoveredShare(const Video& video, const Fit& fit, const Film& film, const Pose& source) {
  const RigidMap toCanvas = fit.pose.ToCanvas(), toSource = source.ToPicture();
  const double centreX = (video.Width() - 1) / 2.0, centreY = (video.Height() - 1) / 2.0;
  const auto outside = [&](int x, int y) {
    const Point point = toCanvas.Of((x - centreX) / fit.zoom, (y - centreY) / fit.zoom);
    const Point seen = toSource.Of(point.x, point.y);
    return std::abs(seen.x) > film.width / 2.0 || std::abs(seen.y) > film.height / 2.0;
  };
  int uncovered = 0;
  for (int y = 0; y < video.Height(); ++y) {
    for (int x = 0; x < video.Width(); ++x) {
      uncovered += ShowsBackground(video, x, y) || (fit.Succeeded() && outside(x, y)) ? 1 : 0;
    }
  }
  return static_cast<double>(uncovered) / video.Width() / video.Height();
}

double LaplacianVariance(const Video& video) {
  double sum = 0, squares = 0;
  int count = 0;
  for (int y = video.Height() / 4; y < video.Height() * 3 / 4; ++y) {
    const std::uint8_t *above = video.Luma(y - 1), *row = video.Luma(y), *below = video.Luma(y + 1);
    for (int x = video.Width() / 4; x < video.Width() * 3 / 4; ++x, ++count) {
      const int value = row[x - 1] + row[x + 1] + above[x] + below[x] - 4 * row[x];
      sum += value;
      squares += value * value;
    }
  }
  const double mean = sum / count;
  return squares / count - mean * mean;
}

/// Throws std::runtime_error when the video has another format or another number of frames.
void Measure(const Film& film, double zoom) {
  Video video;
  if (!video.Open(stdin)) throw std::runtime_error("the input is not YUV4MPEG2 with 8-bit 4:2:0 samples");
  std::puts("frame,x,y,theta,found,uncovered,detail");
  std::optional<Registration> registration;
  for (std::size_t i = 0; i < film.frames.size(); ++i) {
    if (!video.ReadFrame()) {
      throw std::runtime_error("the input ends at frame " + std::to_string(i) + " of " +
                               std::to_string(film.frames.size()));
    }
    const auto& [camera, object, shot, gain, bias] = film.frames[i];
    if (i == 0 || shot != film.frames[i - 1].shot) {
      registration.emplace(PaintShot(film, shot), video.Width(), video.Height());
    }
    const Fit fit = registration->Find(ToLayer(video), {camera, zoom, film.contrast * gain, 128 + bias});
    std::printf("%zu,%.5f,%.5f,%.6f,%d,%.6f,%.3f\n", i, fit.pose.x, -fit.pose.y, fit.pose.degrees,
                fit.Succeeded() ? 1 : 0, UncoveredShare(video, fit, film, camera), LaplacianVariance(video));
  }
  if (video.ReadFrame())
    throw std::runtime_error(
        "the input has more frames than the scene: " + std::to_string(film.frames.size()) + " are expected");
}

}  // namespace

int main(int argc, char* argv[]) {
  const double zoom = argc == 3 ? std::atof(argv[2]) : 1;
  if (argc < 2 || argc > 3 || zoom <= 0) {
    std::fputs("usage: measure_path SCENE [ZOOM] < video.y4m > path.csv\n", stderr);
    return 2;
  }
  try {
    Measure(FindFilm(argv[1]), zoom);
    return 0;
  } catch (const std::invalid_argument& error) {
    std::fprintf(stderr, "measure_path: %s\n", error.what());
    return 2;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "measure_path: %s\n", error.what());
    return 1;
  }
}
