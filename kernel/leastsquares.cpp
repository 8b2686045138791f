#include "kernel/leastsquares.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>

namespace {

/// Products of sums over strong textures need more than 63 bits. They wrap at 64 bits; estimates depend on
/// that.
std::uint64_t WrappedProduct(std::int64_t a, std::int64_t b) {
  return static_cast<std::uint64_t>(a) * static_cast<std::uint64_t>(b);
}

std::int64_t WrappedDifference(std::int64_t a, std::int64_t b, std::int64_t c, std::int64_t d) {
  return static_cast<std::int64_t>(WrappedProduct(a, b) - WrappedProduct(c, d));
}

double ToDouble(std::int64_t value) { return static_cast<double>(value); }

/// Inverse of a symmetric 2 × 2 matrix, upper triangle.
struct Inverse2 {
  double first = 0, mixed = 0, second = 0;
};

/// Inverse of the matrix with rows (a, b) and (b, d). A row of zeros, and its column, are left out and give
/// zeros. Empty when what remains is singular.
std::optional<Inverse2> Invert2(std::int64_t a, std::int64_t b, std::int64_t d) {
  const bool hasFirst = a != 0 || b != 0;
  const bool hasSecond = b != 0 || d != 0;
  if (hasFirst && hasSecond) {
    const double determinant =
        ToDouble(d) * ToDouble(a) - ToDouble(static_cast<std::int64_t>(WrappedProduct(b, b)));
    if (determinant == 0) return std::nullopt;
    return Inverse2{ToDouble(d) / determinant, -ToDouble(b) / determinant, ToDouble(a) / determinant};
  }
  if (hasFirst) return Inverse2{1 / ToDouble(a), 0, 0};
  if (hasSecond) return Inverse2{0, 0, 1 / ToDouble(d)};
  return Inverse2{};
}

/// Whether the update, rounded away from zero to whole samples, fits 32 bits.
bool StepFits32Bits(double update) {
  const double step = std::copysign(std::ceil(std::abs(update)), update);
  return step >= std::numeric_limits<std::int32_t>::min() && step <= std::numeric_limits<std::int32_t>::max();
}

MotionUpdate ZeroUnlessUsable(const MotionUpdate& update) {
  const bool usable = std::isfinite(update.theta) && StepFits32Bits(update.x) && StepFits32Bits(update.y);
  return usable ? update : MotionUpdate{};
}

/// Inverse of a symmetric 3 × 3 matrix, upper triangle.
struct Inverse3 {
  double rr = 0, rx = 0, ry = 0, xx = 0, xy = 0, yy = 0;
};

/// Inverse of the matrix with rows (a, b, c), (b, d, e), (c, e, f), divided by `scale`. Empty when singular.
std::optional<Inverse3> InvertByCofactors(std::int64_t a, std::int64_t b, std::int64_t c, std::int64_t d,
                                          std::int64_t e, std::int64_t f, double scale) {
  const double A = ToDouble(a), B = ToDouble(b), C = ToDouble(c), D = ToDouble(d), E = ToDouble(e),
               F = ToDouble(f);
  const double determinant = A * (D * F - E * E) - B * (B * F - E * C) + C * (B * E - D * C);
  if (determinant == 0) return std::nullopt;
  const auto entry = [divisor = determinant * scale](std::int64_t cofactor) {
    return ToDouble(cofactor) / divisor;
  };
  return Inverse3{entry(WrappedDifference(d, f, e, e)), entry(WrappedDifference(c, e, b, f)),
                  entry(WrappedDifference(b, e, c, d)), entry(WrappedDifference(a, f, c, c)),
                  entry(WrappedDifference(b, c, a, e)), entry(WrappedDifference(a, d, b, b))};
}

/// Inverse of the normal matrix. If an entry exceeds 2^31, all are divided by 2^10 first, which keeps the
/// cofactors of most pictures within 64 bits. Empty when singular.
std::optional<Inverse3> Invert3(const RotationSums& sums) {
  const std::int64_t largest = std::max({sums.rr, sums.rx, sums.ry, sums.xx, sums.xy, sums.yy});
  const int shift = largest > std::int64_t{1} << 31 ? 10 : 0;
  const double scale = 1 << shift;
  const std::int64_t a = sums.rr >> shift, b = sums.rx >> shift, c = sums.ry >> shift;
  const std::int64_t d = sums.xx >> shift, e = sums.xy >> shift, f = sums.yy >> shift;

  if (c == 0 && e == 0 && f == 0) {
    const std::optional<Inverse2> inverse = Invert2(a, b, d);
    if (!inverse) return std::nullopt;
    return Inverse3{inverse->first / scale, inverse->mixed / scale, 0, inverse->second / scale, 0, 0};
  }
  if (b == 0 && d == 0 && e == 0) {
    const std::optional<Inverse2> inverse = Invert2(a, c, f);
    if (!inverse) return std::nullopt;
    return Inverse3{inverse->first / scale, 0, inverse->mixed / scale, 0, 0, inverse->second / scale};
  }
  if (a == 0 && b == 0 && c == 0) {
    const std::optional<Inverse2> inverse = Invert2(d, e, f);
    if (!inverse) return std::nullopt;
    return Inverse3{0, 0, 0, inverse->first / scale, inverse->mixed / scale, inverse->second / scale};
  }
  return InvertByCofactors(a, b, c, d, e, f, scale);
}

}  // namespace

MotionUpdate SolveTranslation(const TranslationSums& sums) {
  const std::optional<Inverse2> inverse = Invert2(sums.xx, sums.xy, sums.yy);
  if (!inverse) return {};
  const double xt = ToDouble(sums.xt), yt = ToDouble(sums.yt);
  return ZeroUnlessUsable({0, -2 * (inverse->first * xt + inverse->mixed * yt),
                           -2 * (inverse->mixed * xt + inverse->second * yt)});
}

MotionUpdate SolveRotation(const RotationSums& sums) {
  const std::optional<Inverse3> inverse = Invert3(sums);
  if (!inverse) return {};
  const double rt = ToDouble(sums.rt), xt = ToDouble(sums.xt), yt = ToDouble(sums.yt);
  return ZeroUnlessUsable({-2 * (inverse->rr * rt + inverse->rx * xt + inverse->ry * yt),
                           -2 * (inverse->rx * rt + inverse->xx * xt + inverse->xy * yt),
                           -2 * (inverse->ry * rt + inverse->xy * xt + inverse->yy * yt)});
}
