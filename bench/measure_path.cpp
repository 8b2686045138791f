// Measures where the camera of a stabilized scene points, on the pixels:
//
//   measure_path SCENE [ZOOM] < video.y4m > path.csv
//
// SCENE as make_scene knows it; ZOOM is how much the stabilizer magnifies, 1 by default. Any 8-bit 4:2:0
// YUV4MPEG2 is taken. The result has a line a frame: x, y, theta as make_scene writes them; whether these are
// known, 1 or 0; the share of the picture that shows background or what the source frame did not
// hold; and the variance of the Laplacian in the picture's middle, which tells how sharp it is.
//
// Each frame is laid on the noise-free canvas for itself (registration.h), so that nothing drifts.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>

#include "registration.h"
#include "scenes.h"
#include "video.h"

namespace {

bool ShowsBackground(const Video& video, int x, int y) {
  return std::abs(video.U(x, y) - SceneU) + std::abs(video.V(x, y) - SceneV) > 10;
}

/// Background is not to be trusted, and neither are pixels beside it.
Layer ToLayer(const Video& video) {
  constexpr int beside = 2;
  const int width = video.Width(), height = video.Height();
  Layer layer{Plane(width, height), Plane(width, height)};
  std::ranges::fill(layer.trust.samples, 1.0F);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      layer.grey.Row(y)[x] = video.Luma(y)[x];
      if (!ShowsBackground(video, x, y)) continue;
      for (int row = std::max(y - beside, 0); row <= std::min(y + beside, height - 1); ++row) {
        const int left = std::max(x - beside, 0), right = std::min(x + beside, width - 1);
        std::fill(layer.trust.Row(row) + left, layer.trust.Row(row) + right + 1, 0.0F);
      }
    }
  }
  return layer;
}

/// The share of pixels that show background, or what lies outside of the frame at the source's pose.
double UncoveredShare(const Video& video, const Fit& fit, const Scene& scene, const Pose& source) {
  const Movement toCanvas = fit.pose.ToCanvas(), toSource = source.ToPicture();
  const double centreX = (video.Width() - 1) / 2.0, centreY = (video.Height() - 1) / 2.0;
  const auto outside = [&](int x, int y) {
    const Point point = toCanvas.Of((x - centreX) / fit.zoom, (y - centreY) / fit.zoom);
    const Point seen = toSource.Of(point.x, point.y);
    return std::abs(seen.x) > scene.width / 2.0 || std::abs(seen.y) > scene.height / 2.0;
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

/// Throws a std::runtime_error when the video is not one of the scene.
void Measure(const Scene& scene, double zoom) {
  Video video;
  if (!video.Open(stdin)) throw std::runtime_error("the input is no 8-bit 4:2:0 YUV4MPEG2");
  std::puts("frame,x,y,theta,found,uncovered,detail");
  std::optional<Registration> registration;
  for (std::size_t i = 0; i < scene.frames.size(); ++i) {
    if (!video.ReadFrame()) {
      throw std::runtime_error("the input ends at frame " + std::to_string(i) + " of " +
                               std::to_string(scene.frames.size()));
    }
    const auto& [camera, object, shot, gain, bias] = scene.frames[i];
    if (i == 0 || shot != scene.frames[i - 1].shot) {
      registration.emplace(PaintShot(scene, shot), video.Width(), video.Height());
    }
    const Fit fit = registration->Find(ToLayer(video), {camera, zoom, scene.contrast * gain, 128 + bias});
    std::printf("%zu,%.5f,%.5f,%.6f,%d,%.6f,%.3f\n", i, fit.pose.x, -fit.pose.y, fit.pose.degrees,
                fit.Succeeded() ? 1 : 0, UncoveredShare(video, fit, scene, camera), LaplacianVariance(video));
  }
  if (video.ReadFrame()) throw std::runtime_error("the input goes on behind the scene's last frame");
}

}  // namespace

int main(int argc, char* argv[]) {
  const double zoom = argc == 3 ? std::atof(argv[2]) : 1;
  if (argc < 2 || argc > 3 || zoom <= 0) {
    std::fputs("usage: measure_path SCENE [ZOOM] < video.y4m > path.csv\n", stderr);
    return 2;
  }
  try {
    Measure(FindScene(argv[1]), zoom);
    return 0;
  } catch (const std::invalid_argument& error) {
    std::fprintf(stderr, "measure_path: %s\n", error.what());
    return 2;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "measure_path: %s\n", error.what());
    return 1;
  }
}
