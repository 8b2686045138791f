#include "precise/similarity.h"

#include <cmath>
#include <numbers>

namespace precise {
namespace {

/// The arc tangent of 0 ≤ x ≤ 1. Three halvings of the angle bring x below 0.1, where the first omitted term
/// of the power series is below 1e-17.
double ArcTangent(double x) {
  for (int halving = 0; halving < 3; ++halving) x /= 1 + std::sqrt(1 + x * x);
  double sum = 0;
  for (int power = 15; power >= 1; power -= 2) sum = (power % 4 == 1 ? 1.0 : -1.0) / power + x * x * sum;
  return 8 * x * sum;
}

}  // namespace

double Length(Complex a) { return std::sqrt(SquaredLength(a)); }

Complex Unit(Complex a) {
  const double length = Length(a);
  return length > 0 ? 1 / length * a : Complex{1, 0};
}

double Angle(Complex a) {
  const double x = std::abs(a.re), y = std::abs(a.im);
  if (x == 0 && y == 0) return 0;
  double angle = y <= x ? ArcTangent(y / x) : std::numbers::pi / 2 - ArcTangent(x / y);
  if (a.re < 0) angle = std::numbers::pi - angle;
  return a.im < 0 ? -angle : angle;
}

Complex Reciprocal(Complex a) { return 1 / SquaredLength(a) * Conjugate(a); }

Similarity Inverse(const Similarity& map) {
  const Complex turn = Reciprocal(map.turn);
  return {turn, -(turn * map.shift)};
}

Similarity Rigid(const Similarity& map) { return {Unit(map.turn), map.shift}; }

Similarity Half(const Similarity& map) {
  const double zoom = Length(map.turn);
  // The bisector of 1 and the turn has half its angle.
  const Complex turn = std::sqrt(zoom) * Unit(Unit(map.turn) + Complex{1, 0});
  return {turn, Reciprocal(turn + Complex{1, 0}) * map.shift};
}

}  // namespace precise
