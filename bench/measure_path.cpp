// Measures where the camera of a stabilized scene points, on the pixels:
//
//   measure_path SCENE [ZOOM] < video.y4m > path.csv
//
// SCENE as make_scene knows it; ZOOM is how much the stabilizer magnifies, 1 by default. Any 8-bit 4:2:0 YUV4MPEG2 is
// taken. The result has a line a frame: x, y, theta as make_scene writes them; the zoom; whether these are known, 1 or 0;
// the share of the picture that shows background or what the source frame did not hold; and the variance of the Laplacian
// in the picture's middle, which tells how sharp it is.
//
// Each frame is laid on the noise-free canvas for itself, so that nothing drifts: a correlation of coarse pictures finds
// it around the pose that it was filmed at, then Gauss-Newton steps on similarity, gain and offset, with Tukey's weights
// against what is no canvas, refine it (S. Baker, I. Matthews, "Lucas-Kanade 20 years on", International Journal of
// Computer Vision 56, 2004; P. Huber, "Robust statistics", 1981).

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <numbers>
#include <optional>
#include <string>
#include <vector>

#include "scenes.h"

namespace {

constexpr double RadiansADegree = std::numbers::pi / 180;
constexpr int CoarsestWidth = 80;  // of the picture that the search starts with
constexpr int SearchReach = 12;    // its pixels
constexpr int SamplesAtMost = 40000;
constexpr double LeastScale = 1.5;  // grey levels; what the 8 bits and resampling leave

struct Video {
  int width = 0, height = 0;
  std::vector<unsigned char> luma, u, v;
};

/// A picture and where it can be trusted: not near its edges, nor near background.
struct Layer {
  Plane grey;
  Plane trust;  // 1 or 0
};

struct Fit {
  Pose pose;
  double zoom = 1, gain = 1, offset = 0;
  double agreeing = 0;  // share of the samples

  bool Succeeded() const { return agreeing > 0.4 && gain > 0.05; }
};

std::optional<std::string> ReadLine(std::FILE* file) {
  std::string line;
  for (int c = std::fgetc(file); c != '\n'; c = std::fgetc(file)) {
    if (c == EOF) return std::nullopt;
    line.push_back(static_cast<char>(c));
  }
  return line;
}

bool ReadHeader(std::FILE* file, Video& video) {
  const auto line = ReadLine(file);
  if (!line || line->rfind("YUV4MPEG2 ", 0) != 0) return false;
  const auto number = [&line](const char* tag) {
    const auto at = line->find(tag);
    return at == std::string::npos ? 0 : std::atoi(line->c_str() + at + 2);
  };
  video.width = number(" W");
  video.height = number(" H");
  const auto colours = line->find(" C");
  if (video.width < 2 || video.height < 2 || (colours != std::string::npos && line->find(" C420") != colours)) return false;
  const auto chroma = static_cast<std::size_t>((video.width + 1) / 2) * static_cast<std::size_t>((video.height + 1) / 2);
  video.luma.resize(static_cast<std::size_t>(video.width) * static_cast<std::size_t>(video.height));
  video.u.resize(chroma);
  video.v.resize(chroma);
  return true;
}

bool ReadFrame(std::FILE* file, Video& video) {
  const auto line = ReadLine(file);
  if (!line || line->rfind("FRAME", 0) != 0) return false;
  for (auto* plane : {&video.luma, &video.u, &video.v}) {
    if (std::fread(plane->data(), 1, plane->size(), file) != plane->size()) return false;
  }
  return true;
}

bool ShowsBackground(const Video& video, int x, int y) {
  const auto at = static_cast<std::size_t>(y / 2) * static_cast<std::size_t>((video.width + 1) / 2) +
                  static_cast<std::size_t>(x / 2);
  return std::abs(video.u[at] - SceneU) + std::abs(video.v[at] - SceneV) > 10;
}

/// The share of pixels that show background, or what lies outside of the frame at the source's pose.
double UncoveredShare(const Video& video, const Fit& fit, const Scene& scene, const Pose& source) {
  const Movement toCanvas = fit.pose.ToCanvas(), toSource = source.ToPicture();
  const auto outside = [&](int x, int y) {
    const Point point = toCanvas.Of((x - (video.width - 1) / 2.0) / fit.zoom, (y - (video.height - 1) / 2.0) / fit.zoom);
    const Point seen = toSource.Of(point.x, point.y);
    return std::abs(seen.x) > scene.width / 2.0 || std::abs(seen.y) > scene.height / 2.0;
  };
  int uncovered = 0;
  for (int y = 0; y < video.height; ++y) {
    for (int x = 0; x < video.width; ++x) {
      uncovered += ShowsBackground(video, x, y) || (fit.Succeeded() && outside(x, y)) ? 1 : 0;
    }
  }
  return static_cast<double>(uncovered) / static_cast<double>(video.luma.size());
}

double LaplacianVariance(const Video& video) {
  double sum = 0, squares = 0;
  int count = 0;
  const auto stride = static_cast<std::ptrdiff_t>(video.width);
  for (int y = video.height / 4; y < video.height * 3 / 4; ++y) {
    const unsigned char* row = &video.luma[static_cast<std::size_t>(y) * static_cast<std::size_t>(video.width)];
    for (int x = video.width / 4; x < video.width * 3 / 4; ++x, ++count) {
      const int value = row[x - 1] + row[x + 1] + row[x - stride] + row[x + stride] - 4 * row[x];
      sum += value;
      squares += value * value;
    }
  }
  const double mean = sum / count;
  return squares / count - mean * mean;
}

/// Trust one step on: where all samples under the filter are trusted.
Plane Eroded(const Plane& trust) {
  Plane result(trust.width, trust.height);
  for (int y = 2; y < trust.height - 2; ++y) {
    for (int x = 2; x < trust.width - 2; ++x) {
      float least = 1;
      for (int k = -2; k <= 2; ++k) {
        const float* row = trust.Row(y + k) + x;
        least = std::min({least, row[-2], row[-1], row[0], row[1], row[2]});
      }
      result.Row(y)[x] = least;
    }
  }
  return result;
}

Layer FinestLayer(const Video& video) {
  Layer layer{Plane(video.width, video.height), Plane(video.width, video.height)};
  for (int y = 0; y < video.height; ++y) {
    for (int x = 0; x < video.width; ++x) {
      layer.grey.Row(y)[x] = video.luma[static_cast<std::size_t>(y) * static_cast<std::size_t>(video.width) +
                                        static_cast<std::size_t>(x)];
      layer.trust.Row(y)[x] = ShowsBackground(video, x, y) ? 0 : 1;
    }
  }
  return {Blurred(layer.grey), Eroded(Eroded(layer.trust))};
}

int CountLayers(int width) {
  int layers = 1;
  for (; width > CoarsestWidth; width = (width + 1) / 2) ++layers;
  return layers;
}

/// A picture at every scale, finest first: each layer has half the size of the one before.
std::vector<Layer> Layers(const Video& video) {
  std::vector<Layer> layers{FinestLayer(video)};
  for (int count = CountLayers(video.width); count > 1; --count) {
    const Layer& last = layers.back();
    layers.push_back({Blurred(Halved(last.grey)), Eroded(Halved(last.trust))});
  }
  return layers;
}

/// A shot's canvas as the layers of a picture would show it: under the same filters.
std::vector<View> CanvasLayers(const Scene& scene, int shot, int count) {
  const Area area = ShotArea(scene, shot);
  Plane samples = PaintCanvas(area, ShotSeed(shot));
  std::vector<View> views;
  for (double pitch = CanvasPitch; count > 0; --count, pitch *= 2) {
    const int pictureStep = static_cast<int>(1 / CanvasPitch);
    samples = Blurred(samples, pictureStep);
    views.emplace_back(samples, area, pitch);
    samples = Halved(samples);
  }
  return views;
}

class Registration {
 public:
  Registration(const Video& video, const std::vector<Layer>& layers, const std::vector<View>& canvas)
      : m_centreX((video.width - 1) / 2.0), m_centreY((video.height - 1) / 2.0), m_layers(layers), m_canvas(canvas) {}

  Fit Find(Fit fit) const {
    const std::size_t coarsest = m_layers.size() - 1;
    fit.pose = BestShift(fit, coarsest);
    for (std::size_t level = m_layers.size(); level-- > 0;) Refine(level, fit);
    return fit;
  }

 private:
  static constexpr int Unknowns = 6;  // x, y, roll, zoom, gain, offset
  using Row = std::array<double, Unknowns + 1>;
  struct Sample {
    Row row;          // derivatives by the unknowns, then what is to be explained
    double residual;  // of the picture against the canvas
  };

  /// A layer's sample from the picture's centre, in canvas pixels.
  Point FromCentre(const Fit& fit, std::size_t level, int x, int y) const {
    return {((x << level) - m_centreX) / fit.zoom, ((y << level) - m_centreY) / fit.zoom};
  }

  /// Of shifts of the coarsest layer by even numbers of its pixels, that which correlates best with the canvas.
  Pose BestShift(const Fit& start, std::size_t level) const {
    Pose best = start.pose;
    double highest = -1;
    for (int down = -SearchReach; down <= SearchReach; down += 2) {
      for (int right = -SearchReach; right <= SearchReach; right += 2) {
        Fit shifted = start;
        shifted.pose.x += right << level;
        shifted.pose.y += down << level;
        const double found = Correlation(shifted, level);
        if (found > highest) {
          highest = found;
          best = shifted.pose;
        }
      }
    }
    return best;
  }

  double Correlation(const Fit& fit, std::size_t level) const {
    const auto& [grey, trust] = m_layers[level];
    const Movement toCanvas = fit.pose.ToCanvas();
    double count = 0, sumA = 0, sumB = 0, sumAA = 0, sumBB = 0, sumAB = 0;
    for (int y = 0; y < grey.height; y += 2) {
      for (int x = 0; x < grey.width; x += 2) {
        if (trust.Row(y)[x] == 0) continue;
        const Point from = FromCentre(fit, level, x, y), point = toCanvas.Of(from.x, from.y);
        if (!m_canvas[level].Holds(point.x, point.y)) continue;
        const double a = grey.Row(y)[x], b = m_canvas[level].At(point.x, point.y);
        count += 1;
        sumA += a;
        sumB += b;
        sumAA += a * a;
        sumBB += b * b;
        sumAB += a * b;
      }
    }
    const double varianceA = count * sumAA - sumA * sumA, varianceB = count * sumBB - sumB * sumB;
    if (count < 100 || varianceA <= 0 || varianceB <= 0) return -1;
    return (count * sumAB - sumA * sumB) / std::sqrt(varianceA * varianceB);
  }

  void Refine(std::size_t level, Fit& fit) const {
    constexpr int steps = 12;
    for (int i = 0; i < steps; ++i) {
      std::vector<Sample> samples = Compare(level, fit);
      if (samples.size() < 100) {
        fit.agreeing = 0;
        return;
      }
      // The first look at a layer knows gain and offset only roughly.
      const double moved = Step(samples, fit) / static_cast<double>(1 << level);
      if (i > 1 && moved < (level == 0 ? 2e-4 : 2e-2)) break;
    }
  }

  std::vector<Sample> Compare(std::size_t level, const Fit& fit) const {
    const auto& [grey, trust] = m_layers[level];
    const int stride = std::max(1, static_cast<int>(std::ceil(std::sqrt(
                                       static_cast<double>(grey.width) * grey.height / SamplesAtMost))));
    const Movement toCanvas = fit.pose.ToCanvas();
    const View& canvas = m_canvas[level];
    std::vector<Sample> samples;
    samples.reserve(SamplesAtMost);
    for (int y = 0; y < grey.height; y += stride) {
      // Rows in turn start elsewhere, so that no column is left out.
      for (int x = y / stride % stride; x < grey.width; x += stride) {
        if (trust.Row(y)[x] == 0) continue;
        const Point from = FromCentre(fit, level, x, y), point = toCanvas.Of(from.x, from.y);
        if (!canvas.Holds(point.x, point.y)) continue;
        const auto [value, slopeX, slopeY] = canvas.WithSlopes(point.x, point.y);
        // Turning the picture moves the point under it at a right angle to its way from the centre.
        const double fromX = point.x - fit.pose.x, fromY = point.y - fit.pose.y;
        const double turning = slopeX * fromY - slopeY * fromX, growing = -(slopeX * fromX + slopeY * fromY);
        const double residual = grey.Row(y)[x] - (fit.gain * value + fit.offset);
        samples.push_back({{fit.gain * slopeX, fit.gain * slopeY, fit.gain * turning, fit.gain * growing, value, 1,
                            residual},
                           residual});
      }
    }
    return samples;
  }

  /// One Gauss-Newton step; returns how far it moves the picture, at most, in pixels.
  double Step(std::vector<Sample>& samples, Fit& fit) const {
    const double cut = 4.685 * std::max(Scale(samples), LeastScale * std::max(fit.gain, 0.02));
    std::array<Row, Unknowns> normal{};
    std::size_t agreeing = 0;
    for (const Sample& sample : samples) {
      const double ratio = sample.residual / cut;
      if (std::abs(ratio) >= 1) continue;
      ++agreeing;
      const double weight = (1 - ratio * ratio) * (1 - ratio * ratio);
      for (std::size_t i = 0; i < Unknowns; ++i) {
        for (std::size_t k = i; k <= Unknowns; ++k) normal[i][k] += weight * sample.row[i] * sample.row[k];
      }
    }
    const Row step = Solve(normal);
    fit.pose.x += step[0];
    fit.pose.y += step[1];
    fit.pose.degrees += step[2] / RadiansADegree;
    fit.zoom *= std::exp(step[3]);
    fit.gain += step[4];
    fit.offset += step[5];
    fit.agreeing = static_cast<double>(agreeing) / static_cast<double>(samples.size());
    return std::max(std::hypot(step[0], step[1]), std::hypot(step[2], step[3]) * m_centreX);
  }

  /// A standard deviation that outliers leave alone.
  static double Scale(std::vector<Sample>& samples) {
    std::vector<double> sizes(samples.size());
    std::ranges::transform(samples, sizes.begin(), [](const Sample& sample) { return std::abs(sample.residual); });
    const auto middle = sizes.begin() + static_cast<std::ptrdiff_t>(sizes.size() / 2);
    std::ranges::nth_element(sizes, middle);
    return 1.4826 * *middle;
  }

  /// Of the equations whose upper triangle is given, by elimination; what they do not determine stays as it is.
  static Row Solve(std::array<Row, Unknowns>& equations) {
    for (std::size_t i = 0; i < Unknowns; ++i) {
      for (std::size_t k = 0; k < i; ++k) equations[i][k] = equations[k][i];
    }
    Row solution{};
    for (std::size_t i = 0; i < Unknowns; ++i) {
      if (equations[i][i] <= 0) return solution;
      for (std::size_t below = i + 1; below < Unknowns; ++below) {
        const double factor = equations[below][i] / equations[i][i];
        for (std::size_t k = i; k <= Unknowns; ++k) equations[below][k] -= factor * equations[i][k];
      }
    }
    for (std::size_t i = Unknowns; i-- > 0;) {
      solution[i] = equations[i][Unknowns];
      for (std::size_t k = i + 1; k < Unknowns; ++k) solution[i] -= equations[i][k] * solution[k];
      solution[i] /= equations[i][i];
    }
    return solution;
  }

  double m_centreX, m_centreY;
  const std::vector<Layer>& m_layers;
  const std::vector<View>& m_canvas;
};

int Measure(const Scene& scene, double zoom) {
  Video video;
  if (!ReadHeader(stdin, video)) {
    std::fputs("measure_path: the input is no 8-bit 4:2:0 YUV4MPEG2\n", stderr);
    return 1;
  }
  std::puts("frame,x,y,theta,zoom,found,uncovered,detail");
  std::vector<View> canvas;
  int shot = -1;
  for (std::size_t i = 0; i < scene.frames.size(); ++i) {
    if (!ReadFrame(stdin, video)) {
      std::fprintf(stderr, "measure_path: the input ends at frame %zu of %zu\n", i, scene.frames.size());
      return 1;
    }
    const SceneFrame& frame = scene.frames[i];
    if (frame.shot != shot) {
      shot = frame.shot;
      canvas = CanvasLayers(scene, shot, CountLayers(video.width));
    }
    const std::vector<Layer> layers = Layers(video);
    const Fit start{frame.camera, zoom, scene.contrast * frame.gain, 128 + frame.bias};
    const Fit fit = Registration(video, layers, canvas).Find(start);
    std::printf("%zu,%.5f,%.5f,%.6f,%.6f,%d,%.6f,%.3f\n", i, fit.pose.x, -fit.pose.y, fit.pose.degrees,
                fit.zoom, fit.Succeeded() ? 1 : 0, UncoveredShare(video, fit, scene, frame.camera),
                LaplacianVariance(video));
  }
  return 0;
}

}  // namespace

int main(int argc, char* argv[]) {
  const auto scene = argc == 2 || argc == 3 ? FindScene(argv[1]) : std::nullopt;
  const double zoom = argc == 3 ? std::atof(argv[2]) : 1;
  if (!scene || zoom <= 0) {
    std::fputs("usage: measure_path SCENE [ZOOM] < video.y4m > path.csv, scenes: make_scene\n", stderr);
    return 2;
  }
  return Measure(*scene, zoom);
}
