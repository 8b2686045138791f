#include "kernel/sinecosine.h"

#include <cmath>
#include <cstdint>
#include <span>

namespace {

// π/2 in three parts, for a Cody-Waite range reduction. The first two are so short that their products with
// up to 2^20 quarter turns are exact.
constexpr double kHalfPiHigh = 0x1.921fb544p+0;
constexpr double kHalfPiMiddle = 0x1.0b4611a6p-34;
constexpr double kHalfPiLow = 0x1.3198a2e037073p-69;
constexpr double kTwoPi = 0x1.921fb54442d18p+2;
constexpr double kTwoOverPi = 0x1.45f306dc9c883p-1;
constexpr double kLargestReducible = 0x1p+20;

// Taylor coefficients in x², highest power first. For |x| ≤ π/4 the first omitted term is below 2^-58.
constexpr double kSineTerms[] = {
    1.0 / 355687428096000, -1.0 / 1307674368000, 1.0 / 6227020800, -1.0 / 39916800,
    1.0 / 362880,          -1.0 / 5040,          1.0 / 120,        -1.0 / 6};
constexpr double kCosineTerms[] = {1.0 / 20922789888000, -1.0 / 87178291200, 1.0 / 479001600, -1.0 / 3628800,
                                   1.0 / 40320,          -1.0 / 720,         1.0 / 24};

double Horner(std::span<const double> terms, double x) {
  double value = 0;
  for (const double term : terms) value = value * x + term;
  return value;
}

}  // namespace

SineCosine ComputeSineCosine(double radians) {
  if (!std::isfinite(radians)) return {0.0, 1.0};
  if (std::abs(radians) > kLargestReducible) radians = std::fmod(radians, kTwoPi);

  const double quarterTurns = std::floor(radians * kTwoOverPi + 0.5);
  const double partial = radians - quarterTurns * kHalfPiHigh;
  const double middle = quarterTurns * kHalfPiMiddle;
  const double reduced = partial - middle;
  const double lost = (partial - reduced) - middle;
  const double angle = reduced + (lost - quarterTurns * kHalfPiLow);

  const double square = angle * angle;
  const double sine = angle + angle * square * Horner(kSineTerms, square);
  const double cosine = 1.0 - (0.5 * square - square * square * Horner(kCosineTerms, square));

  switch (static_cast<std::int64_t>(quarterTurns) & 3) {
    case 0:
      return {sine, cosine};
    case 1:
      return {cosine, -sine};
    case 2:
      return {-sine, -cosine};
    default:
      return {-cosine, sine};
  }
}
