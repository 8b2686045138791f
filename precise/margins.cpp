#include "precise/margins.h"

#include <algorithm>
#include <cmath>

namespace precise {
namespace {

constexpr double kPositionStep = 1.0 / 64;

}  // namespace

bool Fits(const Correction& correction, const HalfSizes& sizes) {
  for (const double side : {-1.0, 1.0}) {
    const Complex corner = {sizes.shown.re, side * sizes.shown.im};
    for (const Complex& shown : {corner, -corner}) {
      const Complex source = Conjugate(correction.turn) * (shown - correction.shift);
      if (!(std::abs(source.re) <= sizes.picture.re && std::abs(source.im) <= sizes.picture.im)) return false;
    }
  }
  return true;
}

CLadder::Weights CLadder::MakeWeights(std::int32_t window, std::span<const double> widest) {
  Weights weights;
  for (std::size_t rung = 1; rung < kRungs - 1; ++rung) {
    const double share = static_cast<double>(rung) / kHighest;
    weights[rung - 1] = PathWeights(window, 1 + share * window / 2);
  }
  weights.back().assign(widest.begin(), widest.end());
  return weights;
}

CLadder::CLadder(std::span<const Similarity> poses, const Weights& weights) {
  for (std::size_t rung = 1; rung < kRungs; ++rung) m_rungs[rung] = MeanPose(poses, weights[rung - 1]);
}

Correction CLadder::At(double position) const {
  const auto below = static_cast<std::size_t>(std::clamp(position, 0.0, kHighest - 1));
  return Between(m_rungs[below], m_rungs[below + 1], position - static_cast<double>(below));
}

double CLadder::Reach(const HalfSizes& sizes) const {
  std::size_t rung = 0;
  while (rung + 1 < kRungs && Fits(m_rungs[rung + 1], sizes)) ++rung;
  if (rung + 1 == kRungs) return kHighest;
  double fits = 0, misses = 1;
  while (misses - fits > kPositionStep) {
    const double share = (fits + misses) / 2;
    (Fits(At(static_cast<double>(rung) + share), sizes) ? fits : misses) = share;
  }
  return static_cast<double>(rung) + fits;
}

Correction CLadder::FittingAt(double position, const HalfSizes& sizes) const {
  // A mixture of two corrections that fit may miss by a hair.
  while (position > 0) {
    const Correction correction = At(position);
    if (Fits(correction, sizes)) return correction;
    position -= kPositionStep;
  }
  return {};
}

double SmoothReach(std::span<const double> reaches, std::int64_t middle, std::span<const double> weights) {
  const auto count = static_cast<std::int64_t>(reaches.size());
  const auto half = static_cast<std::int64_t>(weights.size()) - 1;
  double sum = 0, total = 0;
  for (std::int64_t i = std::max<std::int64_t>(middle - half, 0); i <= std::min(middle + half, count - 1);
       ++i) {
    const auto begin = reaches.begin() + std::max<std::int64_t>(i - half, 0);
    const auto end = reaches.begin() + std::min(i + half + 1, count);
    const double weight = weights[static_cast<std::size_t>(std::abs(i - middle))];
    sum += weight * *std::min_element(begin, end);
    total += weight;
  }
  return sum / total;
}

}  // namespace precise
