#include "registration.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <utility>

namespace {

constexpr double DegreesARadian = 180 / std::numbers::pi;
constexpr int CoarsestWidth = 80;  // of the layer on which the search starts, in its pixels
constexpr int SearchReach = 12;    // of the search on that layer, in its pixels
constexpr double SamplesAtMost = 40000;
constexpr std::size_t FewestSamples = 100;
constexpr double LeastScale = 1.5;  // grey levels, from 8-bit rounding and resampling

constexpr std::size_t Unknowns = 6;                 // x, y, roll, zoom, gain, offset
using Equation = std::array<double, Unknowns + 1>;  // derivatives by the unknowns, then the residual

/// A sample of a blurred layer is trusted where all samples under the filter of `Blurred` are.
FloatPlane Eroded(const FloatPlane& trust) {
  FloatPlane result(trust.Width(), trust.Height());
  std::fill_n(result.Row(0), std::ptrdiff_t{trust.Width()} * trust.Height(), 0.0F);
  for (int y = 2; y < trust.Height() - 2; ++y) {
    for (int x = 2; x < trust.Width() - 2; ++x) {
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

int CountLayers(int width) {
  int layers = 1;
  for (; width > CoarsestWidth; width = (width + 1) / 2) ++layers;
  return layers;
}

/// The pyramid of a picture, finest layer first. Each further layer has half the size.
std::vector<Layer> Layers(const Layer& picture) {
  std::vector<Layer> layers;
  layers.push_back({Blurred(picture.grey), Eroded(picture.trust)});
  for (int count = CountLayers(picture.grey.Width()); count > 1; --count) {
    const Layer& last = layers.back();
    layers.push_back({Blurred(Halved(last.grey)), Eroded(Halved(last.trust))});
  }
  return layers;
}

/// The standard deviation by the median of the absolute residuals, which outliers hardly change.
double RobustDeviation(const std::vector<Equation>& equations) {
  std::vector<double> sizes(equations.size());
  std::ranges::transform(equations, sizes.begin(), [](const Equation& e) { return std::abs(e.back()); });
  const auto middle = sizes.begin() + static_cast<std::ptrdiff_t>(sizes.size() / 2);
  std::ranges::nth_element(sizes, middle);
  return 1.4826 * *middle;
}

/// Solves the normal equations by Gaussian elimination. The upper triangle is given. A singular matrix gives
/// zero.
Equation Solved(std::array<Equation, Unknowns>& normal) {
  for (std::size_t i = 0; i < Unknowns; ++i) {
    for (std::size_t k = 0; k < i; ++k) normal[i][k] = normal[k][i];
  }
  Equation solution{};
  for (std::size_t i = 0; i < Unknowns; ++i) {
    if (normal[i][i] <= 0) return solution;
    for (std::size_t below = i + 1; below < Unknowns; ++below) {
      const double factor = normal[below][i] / normal[i][i];
      for (std::size_t k = i; k <= Unknowns; ++k) normal[below][k] -= factor * normal[i][k];
    }
  }
  for (std::size_t i = Unknowns; i-- > 0;) {
    solution[i] = normal[i][Unknowns];
    for (std::size_t k = i + 1; k < Unknowns; ++k) solution[i] -= normal[i][k] * solution[k];
    solution[i] /= normal[i][i];
  }
  return solution;
}

/// One layer of a picture, and the canvas at the same scale.
class Match {
 public:
  Match(const Layer& layer, const View& canvas, std::size_t level, Point centre)
      : m_grey(layer.grey), m_trust(layer.trust), m_canvas(canvas), m_level(level), m_centre(centre) {}

  /// The shift with the highest correlation, out of all even numbers of layer pixels within reach.
  Fit BestShift(const Fit& start) const {
    Fit best = start;
    double highest = -1;
    for (int down = -SearchReach; down <= SearchReach; down += 2) {
      for (int right = -SearchReach; right <= SearchReach; right += 2) {
        Fit shifted = start;
        shifted.pose.x += right << m_level;
        shifted.pose.y += down << m_level;
        if (const double found = Correlation(shifted); found > highest) {
          highest = found;
          best = shifted;
        }
      }
    }
    return best;
  }

  /// Repeats Gauss-Newton steps until they move the picture hardly any more.
  void Refine(Fit& fit) const {
    const double hardly = m_level == 0 ? 1e-3 : 2e-2;
    for (int i = 0; i < 12; ++i) {
      const std::vector<Equation> equations = Compare(fit);
      if (equations.size() < FewestSamples) {
        fit.agreeing = 0;
        return;
      }
      // The first step may be short because gain and offset are still wrong.
      const double moved = Step(equations, fit) / static_cast<double>(1 << m_level);
      if (i > 0 && moved < hardly) return;
    }
  }

 private:
  /// Calls visit(grey value, canvas point) for every `stride`th sample on each axis that can be trusted.
  template <class Visit>
  void ForSamples(const Fit& fit, int stride, Visit visit) const {
    const RigidMap toCanvas = fit.pose.ToCanvas();
    for (int y = 0; y < m_grey.Height(); y += stride) {
      // The first column differs from row to row, so all columns contribute.
      for (int x = y / stride % stride; x < m_grey.Width(); x += stride) {
        if (m_trust.Row(y)[x] == 0) continue;
        const Point point =
            toCanvas.Of(((x << m_level) - m_centre.x) / fit.zoom, ((y << m_level) - m_centre.y) / fit.zoom);
        if (m_canvas.Holds(point.x, point.y)) visit(m_grey.Row(y)[x], point);
      }
    }
  }

  double Correlation(const Fit& fit) const {
    double count = 0, sumA = 0, sumB = 0, sumAA = 0, sumBB = 0, sumAB = 0;
    ForSamples(fit, 2, [&](double a, Point point) {
      const double b = m_canvas.At(point.x, point.y);
      count += 1;
      sumA += a;
      sumB += b;
      sumAA += a * a;
      sumBB += b * b;
      sumAB += a * b;
    });
    const double varianceA = count * sumAA - sumA * sumA, varianceB = count * sumBB - sumB * sumB;
    if (count < static_cast<double>(FewestSamples) || varianceA <= 0 || varianceB <= 0) return -1;
    return (count * sumAB - sumA * sumB) / std::sqrt(varianceA * varianceB);
  }

  /// The residuals, and their derivatives by the unknowns.
  std::vector<Equation> Compare(const Fit& fit) const {
    const double pixels = static_cast<double>(m_grey.Width()) * m_grey.Height();
    const int stride = static_cast<int>(std::ceil(std::sqrt(std::max(pixels / SamplesAtMost, 1.0))));
    std::vector<Equation> equations;
    equations.reserve(static_cast<std::size_t>(SamplesAtMost));
    ForSamples(fit, stride, [&](double grey, Point point) {
      const auto [value, slopeX, slopeY] = m_canvas.WithSlopes(point.x, point.y);
      // A roll moves a point at a right angle to the line from the centre, a zoom along that line.
      const double fromX = point.x - fit.pose.x, fromY = point.y - fit.pose.y;
      const double turning = slopeX * fromY - slopeY * fromX, growing = -(slopeX * fromX + slopeY * fromY);
      equations.push_back({fit.gain * slopeX, fit.gain * slopeY, fit.gain * turning, fit.gain * growing,
                           value, 1, grey - (fit.gain * value + fit.offset)});
    });
    return equations;
  }

  /// Makes one Gauss-Newton step. Returns an upper bound of how far it moves any pixel, in pixels.
  double Step(const std::vector<Equation>& equations, Fit& fit) const {
    const double cut = 4.685 * std::max(RobustDeviation(equations), LeastScale * std::max(fit.gain, 0.02));
    std::array<Equation, Unknowns> normal{};
    std::size_t agreeing = 0;
    for (const Equation& equation : equations) {
      const double ratio = equation.back() / cut;
      if (std::abs(ratio) >= 1) continue;
      ++agreeing;
      const double weight = (1 - ratio * ratio) * (1 - ratio * ratio);
      for (std::size_t i = 0; i < Unknowns; ++i) {
        for (std::size_t k = i; k <= Unknowns; ++k) normal[i][k] += weight * equation[i] * equation[k];
      }
    }
    const auto [x, y, roll, zoom, gain, offset, rest] = Solved(normal);
    fit.pose.x += x;
    fit.pose.y += y;
    fit.pose.degrees += roll * DegreesARadian;
    fit.zoom *= std::exp(zoom);
    fit.gain += gain;
    fit.offset += offset;
    fit.agreeing = static_cast<double>(agreeing) / static_cast<double>(equations.size());
    return std::max(std::hypot(x, y), std::hypot(roll, zoom) * m_centre.x);
  }

  const FloatPlane &m_grey, &m_trust;
  const View& m_canvas;
  std::size_t m_level;
  Point m_centre;  // of the picture, in pixels of the finest layer
};

}  // namespace

Registration::Registration(Canvas canvas, int width, int height)
    : m_centre{(width - 1) / 2.0, (height - 1) / 2.0} {
  // The blur must equal that of the picture's layers, so taps lie one pixel of the layer apart.
  const int spacing = static_cast<int>(1 / canvas.pitch);
  for (int count = CountLayers(width); count > 0; --count) {
    Canvas layer{Blurred(canvas.samples, spacing), canvas.left, canvas.top, canvas.pitch};
    canvas.samples = Halved(layer.samples);
    canvas.pitch *= 2;
    m_canvas.emplace_back(std::move(layer));
  }
}

Fit Registration::Find(const Layer& picture, const Fit& start) const {
  const std::vector<Layer> layers = Layers(picture);
  std::vector<Match> matches;
  for (std::size_t level = 0; level < layers.size(); ++level) {
    matches.emplace_back(layers[level], m_canvas[level], level, m_centre);
  }
  Fit fit = matches.back().BestShift(start);
  while (!matches.empty()) {
    matches.back().Refine(fit);
    matches.pop_back();
  }
  return fit;
}
