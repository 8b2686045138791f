#include "precise/normalequations.h"

#include <algorithm>
#include <cmath>

namespace precise {

void NormalEquations::AddCell(const CellSums& sums, Complex middle, double radius, double pixelAspect) {
  // The sums hold differences over two samples. These factors make them gradients per sample height.
  const double x = 0.5 / pixelAspect, y = 0.5;
  const double xx = sums.xx * x * x, xy = sums.xy * x * y, yy = sums.yy * y * y;
  const double xb = sums.xb * x, yb = sums.yb * y, xOne = sums.x * x, yOne = sums.y * y;
  const double xr = sums.xr * x, yr = sums.yr * y;
  // Roll moves the cell by (-down, rightward), zoom by (rightward, down).
  const double rightward = middle.re / radius, down = middle.im / radius;
  const auto roll = [&](double alongX, double alongY) { return alongY * rightward - alongX * down; };
  const auto zoom = [&](double alongX, double alongY) { return alongX * rightward + alongY * down; };
  const double xRoll = roll(xx, xy), yRoll = roll(xy, yy), xZoom = zoom(xx, xy), yZoom = zoom(xy, yy);

  const std::array<UnknownVector, kUnknowns> rows = {
      {{xx},
       {xy, yy},
       {xRoll, yRoll, roll(xRoll, yRoll)},
       {xZoom, yZoom, roll(xZoom, yZoom), zoom(xZoom, yZoom)},
       {xb, yb, roll(xb, yb), zoom(xb, yb), static_cast<double>(sums.bb)},
       {xOne, yOne, roll(xOne, yOne), zoom(xOne, yOne), static_cast<double>(sums.b), sums.one / 32768.0}}};
  for (std::size_t i = 0; i < kUnknowns; ++i)
    for (std::size_t j = 0; j <= i; ++j) matrix[i][j] += rows[i][j];
  const UnknownVector residual = {
      xr, yr, roll(xr, yr), zoom(xr, yr), static_cast<double>(sums.br), static_cast<double>(sums.r)};
  for (std::size_t i = 0; i < kUnknowns; ++i) right[i] += residual[i];
}

void NormalEquations::Hold(Unknown unknown) {
  for (std::size_t i = 0; i < kUnknowns; ++i)
    matrix[std::max<std::size_t>(i, unknown)][std::min<std::size_t>(i, unknown)] = i == unknown ? 1 : 0;
  right[unknown] = 0;
}

bool NormalEquations::Solve(UnknownVector& solution) const {
  std::array<UnknownVector, kUnknowns> factor = matrix;
  UnknownVector value = right;
  for (std::size_t i = 0; i < kUnknowns; ++i) {
    for (std::size_t j = 0; j <= i; ++j) {
      double sum = factor[i][j];
      for (std::size_t k = 0; k < j; ++k) sum -= factor[i][k] * factor[j][k];
      if (i == j && !(sum > 0)) return false;
      factor[i][j] = i == j ? std::sqrt(sum) : sum / factor[j][j];
    }
  }
  for (std::size_t i = 0; i < kUnknowns; ++i) {
    for (std::size_t k = 0; k < i; ++k) value[i] -= factor[i][k] * value[k];
    value[i] /= factor[i][i];
  }
  for (std::size_t i = kUnknowns; i-- > 0;) {
    for (std::size_t k = i + 1; k < kUnknowns; ++k) value[i] -= factor[k][i] * value[k];
    value[i] /= factor[i][i];
  }
  solution = value;
  return true;
}

}  // namespace precise
