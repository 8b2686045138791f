#include "scenes/spline.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <utility>

namespace {

using Taps = std::array<float, 4>;

int Mirrored(int index, int count) {
  const int last = count - 1;
  const int within = std::abs(index) % std::max(2 * last, 1);
  return within > last ? 2 * last - within : within;
}

float Binomial(float outer2, float outer1, float centre, float outer3, float outer4) {
  return (outer2 + outer4 + 4 * (outer1 + outer3) + 6 * centre) / 16;
}

Taps Slopes(float t) {
  const float s = 1 - t;
  return {-s * s / 2, t * (1.5F * t - 2), s * (2 - 1.5F * s), t * t / 2};
}

/// Turns `columns` columns of `rows` samples, rows lying `stride` apart, into B-spline coefficients.
void Prefilter(float* samples, int columns, int rows, std::size_t stride) {
  const float pole = std::sqrt(3.0F) - 2;
  const auto row = [=](int y) { return samples + static_cast<std::size_t>(y) * stride; };
  const int last = rows - 1;
  for (int x = 0; x < columns; ++x) {
    float first = 0, power = 1;
    for (int y = 0; y < std::min(rows, 16); ++y, power *= pole) first += power * row(y)[x];
    samples[x] = first;
  }
  for (int y = 1; y < rows; ++y) {
    for (int x = 0; x < columns; ++x) row(y)[x] += pole * row(y - 1)[x];
  }
  for (int x = 0; x < columns; ++x) {
    row(last)[x] = 6 * pole / (pole * pole - 1) * (row(last)[x] + pole * row(last - 1)[x]);
  }
  for (int y = last - 1; y >= 0; --y) {
    for (int x = 0; x < columns; ++x) row(y)[x] = pole * (row(y + 1)[x] - 6 * row(y)[x]);
  }
}

}  // namespace

FloatPlane Blurred(const FloatPlane& plane, int spacing) {
  FloatPlane rows(plane.Width(), plane.Height()), result(plane.Width(), plane.Height());
  for (int y = 0; y < plane.Height(); ++y) {
    const float* row = plane.Row(y);
    const auto at = [&](int x) { return row[Mirrored(x, plane.Width())]; };
    float* out = rows.Row(y);
    for (int x = 0; x < plane.Width(); ++x) {
      const bool inside = x >= 2 * spacing && x < plane.Width() - 2 * spacing;
      out[x] = inside ? Binomial(row[x - 2 * spacing], row[x - spacing], row[x], row[x + spacing],
                                 row[x + 2 * spacing])
                      : Binomial(at(x - 2 * spacing), at(x - spacing), row[x], at(x + spacing),
                                 at(x + 2 * spacing));
    }
  }
  for (int y = 0; y < plane.Height(); ++y) {
    std::array<const float*, 5> row{};
    for (int k = 0; k < 5; ++k)
      row[static_cast<std::size_t>(k)] = rows.Row(Mirrored(y + (k - 2) * spacing, plane.Height()));
    float* out = result.Row(y);
    for (int x = 0; x < plane.Width(); ++x)
      out[x] = Binomial(row[0][x], row[1][x], row[2][x], row[3][x], row[4][x]);
  }
  return result;
}

FloatPlane Halved(const FloatPlane& plane) {
  FloatPlane result((plane.Width() + 1) / 2, (plane.Height() + 1) / 2);
  for (int y = 0; y < result.Height(); ++y) {
    const float* row = plane.Row(2 * y);
    for (int x = 0; x < result.Width(); ++x) result.Row(y)[x] = row[2 * x];
  }
  return result;
}

Spline::Spline(FloatPlane samples) : m_coefficients(std::move(samples)) {
  FloatPlane& plane = m_coefficients;
  for (int y = 0; y < plane.Height(); ++y) Prefilter(plane.Row(y), 1, plane.Width(), 1);
  Prefilter(plane.Row(0), plane.Width(), plane.Height(), static_cast<std::size_t>(plane.Width()));
}

float Spline::At(double x, double y) const {
  const int left = static_cast<int>(x), top = static_cast<int>(y);
  const Taps across = SplineWeights(static_cast<float>(x - left)),
             down = SplineWeights(static_cast<float>(y - top));
  float sum = 0;
  for (int k = 0; k < 4; ++k) {
    const float* row = m_coefficients.Row(top - 1 + k) + left - 1;
    const float inRow = across[0] * row[0] + across[1] * row[1] + across[2] * row[2] + across[3] * row[3];
    sum += down[static_cast<std::size_t>(k)] * inRow;
  }
  return sum;
}

Spline::Value Spline::WithSlopes(double x, double y) const {
  const int left = static_cast<int>(x), top = static_cast<int>(y);
  const auto tx = static_cast<float>(x - left), ty = static_cast<float>(y - top);
  const Taps across = SplineWeights(tx), down = SplineWeights(ty), acrossSlope = Slopes(tx),
             downSlope = Slopes(ty);
  Value sum{0, 0, 0};
  for (std::size_t k = 0; k < 4; ++k) {
    const float* row = m_coefficients.Row(top - 1 + static_cast<int>(k)) + left - 1;
    const float inRow = across[0] * row[0] + across[1] * row[1] + across[2] * row[2] + across[3] * row[3];
    sum.value += down[k] * inRow;
    sum.slopeY += downSlope[k] * inRow;
    sum.slopeX += down[k] * (acrossSlope[0] * row[0] + acrossSlope[1] * row[1] + acrossSlope[2] * row[2] +
                             acrossSlope[3] * row[3]);
  }
  return sum;
}
