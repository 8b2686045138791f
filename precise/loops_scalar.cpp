#include <algorithm>
#include <cstdlib>

#include "precise/loops.h"

namespace precise {
namespace {

constexpr int kBrightnessBits = 10;
constexpr std::int32_t kMiddleBrightness = 512;
constexpr int kExposureBits = 14;

// Weights count 16384. The first pass of a separable mean keeps four more bits than the planes have.
constexpr int kWeightBits = 14;
constexpr int kFirstPassBits = kWeightBits - 4, kSecondPassBits = kWeightBits + 4;
constexpr std::int32_t kHalfOfFirstPass = 1 << (kFirstPassBits - 1),
                       kHalfOfSecondPass = 1 << (kSecondPassBits - 1);

constexpr int kPhaseBits = 8;
constexpr std::size_t kPhases = 1 << kPhaseBits;

std::size_t PhaseOf(std::int64_t position) {
  return static_cast<std::size_t>(position >> (kPositionBits - kPhaseBits)) & (kPhases - 1);
}

using SplineWeights = std::array<std::int16_t, 4>;

/// The cubic B-spline of four neighbours at each phase.
constexpr std::array<SplineWeights, kPhases> MakeSplineWeights() {
  std::array<SplineWeights, kPhases> all = {};
  constexpr std::int32_t kOne = kPhases, kDivisor = 6 << (3 * kPhaseBits - kWeightBits);
  const auto rounded = [](std::int32_t numerator) {
    return static_cast<std::int16_t>((numerator + kDivisor / 2) / kDivisor);
  };
  for (std::int32_t t = 0; t < kOne; ++t) {
    const std::int32_t rest = kOne - t;
    SplineWeights& weights = all[static_cast<std::size_t>(t)];
    weights[0] = rounded(rest * rest * rest);
    weights[2] = rounded(kOne * kOne * kOne + 3 * kOne * t * (kOne + t) - 3 * t * t * t);
    weights[3] = rounded(t * t * t);
    weights[1] = static_cast<std::int16_t>((1 << kWeightBits) - weights[0] - weights[2] - weights[3]);
  }
  return all;
}

constexpr std::array<SplineWeights, kPhases> kSplineWeights = MakeSplineWeights();

/// a·b for numbers that count 32768, rounded.
std::int32_t MultiplyFractions(std::int32_t a, std::int32_t b) { return (a * b + (1 << 14)) >> 15; }

std::int32_t WeightOf(std::int32_t residual, const RobustWeight& weight) {
  const std::int32_t distance = std::abs(residual);
  if (distance >= weight.limit) return 0;
  const std::int32_t share = distance * weight.scale;
  const std::int32_t root = 32767 - MultiplyFractions(share, share);
  return MultiplyFractions(root, root);
}

struct Gradient {
  std::int32_t x, y;
};

Gradient GradientAt(const std::int16_t* above, const std::int16_t* row, const std::int16_t* below,
                    std::int32_t i) {
  return {row[i + 1] - row[i - 1], below[i] - above[i]};
}

using CubicWeights = std::array<std::int16_t, 4>;

// Keys' parameter a is -3/4, the sharpest of the usual ones: it keeps 0.92 of a scene's fine detail (the
// variance of the Laplacian) where -1/2 keeps 0.72.
constexpr std::int64_t kSlope = 3, kParts = 4;

/// Keys' weights at each phase.
constexpr std::array<CubicWeights, kPhases> MakeCubicWeights() {
  std::array<CubicWeights, kPhases> all = {};
  constexpr std::int64_t kOne = kPhases, kDivisor = kParts << (3 * kPhaseBits - kWeightBits);
  const auto rounded = [](std::int64_t numerator) {
    const std::int64_t half = numerator < 0 ? -kDivisor / 2 : kDivisor / 2;
    return static_cast<std::int16_t>((numerator + half) / kDivisor);
  };
  // -a·t·(1 - t)² of the far neighbour at distance 1 + t; the near ones share the rest.
  const auto far = [](std::int64_t t) { return -kSlope * t * (kOne - t) * (kOne - t); };
  const auto near = [](std::int64_t t) {
    return (2 * kParts - kSlope) * t * t * t - (3 * kParts - kSlope) * t * t * kOne +
           kParts * kOne * kOne * kOne;
  };
  for (std::int64_t t = 0; t < kOne; ++t) {
    CubicWeights& weights = all[static_cast<std::size_t>(t)];
    weights[0] = rounded(far(t));
    weights[2] = rounded(near(kOne - t));
    weights[3] = rounded(far(kOne - t));
    weights[1] = static_cast<std::int16_t>((1 << kWeightBits) - weights[0] - weights[2] - weights[3]);
  }
  return all;
}

constexpr std::array<CubicWeights, kPhases> kCubicWeights = MakeCubicWeights();

/// A position rounded to a phase of a sample.
struct RoundedPosition {
  explicit RoundedPosition(std::int64_t position) {
    const std::int64_t phases = (position + kHalfPhase) >> (kPositionBits - kPhaseBits);
    whole = static_cast<std::ptrdiff_t>(phases >> kPhaseBits);
    phase = static_cast<std::size_t>(phases) & (kPhases - 1);
  }

  static constexpr std::int64_t kHalfPhase = std::int64_t{1} << (kPositionBits - kPhaseBits - 1);
  std::ptrdiff_t whole;
  std::size_t phase;
};

/// Reads samples that exist.
struct Inside {
  std::uint8_t operator()(const SourcePlane& plane, std::ptrdiff_t x, std::ptrdiff_t y) const {
    return plane.samples[y * plane.strideBytes + x];
  }
};

/// Continues the plane beyond its edges.
struct AtEdges {
  std::uint8_t operator()(const SourcePlane& plane, std::ptrdiff_t x, std::ptrdiff_t y) const {
    return plane.samples[std::clamp<std::ptrdiff_t>(y, 0, plane.height - 1) * plane.strideBytes +
                         std::clamp<std::ptrdiff_t>(x, 0, plane.width - 1)];
  }
};

template <class Read>
void WarpNearest(const SourcePlane& plane, const SourceLine& line, ColumnRun run, std::uint8_t* out) {
  constexpr std::int64_t kHalf = std::int64_t{1} << (kPositionBits - 1);
  for (std::int32_t column = run.begin; column < run.end; ++column)
    out[column] = Read{}(plane, (line.startX + column * line.stepX + kHalf) >> kPositionBits,
                         (line.startY + column * line.stepY + kHalf) >> kPositionBits);
}

template <class Read>
void WarpBilinear(const SourcePlane& plane, const SourceLine& line, ColumnRun run, std::uint8_t* out) {
  constexpr auto kOne = static_cast<std::int32_t>(kPhases);
  for (std::int32_t column = run.begin; column < run.end; ++column) {
    const RoundedPosition x(line.startX + column * line.stepX), y(line.startY + column * line.stepY);
    const auto right = static_cast<std::int32_t>(x.phase), down = static_cast<std::int32_t>(y.phase);
    const auto inRow = [&](std::ptrdiff_t row) {
      return Read{}(plane, x.whole, row) * (kOne - right) + Read{}(plane, x.whole + 1, row) * right;
    };
    out[column] = static_cast<std::uint8_t>(
        (inRow(y.whole) * (kOne - down) + inRow(y.whole + 1) * down + (1 << (2 * kPhaseBits - 1))) >>
        (2 * kPhaseBits));
  }
}

template <class Read>
void WarpBicubic(const SourcePlane& plane, const SourceLine& line, ColumnRun run, std::uint8_t* out) {
  // The first pass keeps six bits more than samples have.
  constexpr int kFirst = kWeightBits - 6, kSecond = kWeightBits + 6;
  for (std::int32_t column = run.begin; column < run.end; ++column) {
    const RoundedPosition x(line.startX + column * line.stepX), y(line.startY + column * line.stepY);
    const CubicWeights &across = kCubicWeights[x.phase], &down = kCubicWeights[y.phase];
    std::int32_t sum = 1 << (kSecond - 1);
    for (std::ptrdiff_t row = 0; row < 4; ++row) {
      std::int32_t inRow = 1 << (kFirst - 1);
      for (std::ptrdiff_t i = 0; i < 4; ++i)
        inRow += across[static_cast<std::size_t>(i)] * Read{}(plane, x.whole - 1 + i, y.whole - 1 + row);
      sum += down[static_cast<std::size_t>(row)] * (inRow >> kFirst);
    }
    out[column] = static_cast<std::uint8_t>(std::clamp(sum >> kSecond, 0, 255));
  }
}

}  // namespace

const WarpLoops kNearestLoops = {WarpNearest<Inside>, WarpNearest<AtEdges>, 0, 1};
const WarpLoops kBilinearLoops = {WarpBilinear<Inside>, WarpBilinear<AtEdges>, 0, 1};
const WarpLoops kBicubicLoops = {WarpBicubic<Inside>, WarpBicubic<AtEdges>, 1, 2};

void AverageBlocks(const std::uint8_t* samples, std::ptrdiff_t strideBytes, int bits, int blockShift,
                   std::int16_t* out, std::int32_t count) {
  const std::int32_t side = 1 << blockShift;
  const int shift = 2 * blockShift + bits - kBrightnessBits;
  for (std::int32_t i = 0; i < count; ++i) {
    std::int32_t sum = 0;
    for (std::int32_t row = 0; row < side; ++row)
      for (std::int32_t column = i * side; column < (i + 1) * side; ++column)
        sum += samples[row * strideBytes + column];
    out[i] = static_cast<std::int16_t>(shift > 0 ? (sum + (1 << (shift - 1))) >> shift : sum << -shift);
  }
}

void SmoothRow(const std::array<const std::int16_t*, 3>& rows, std::int16_t* out, std::int32_t count) {
  const SplineWeights& weights = kSplineWeights[0];
  const auto column = [&](std::int32_t i) {
    return (weights[0] * (rows[0][i] + rows[2][i]) + weights[1] * rows[1][i] + kHalfOfFirstPass) >>
           kFirstPassBits;
  };
  for (std::int32_t i = 0; i < count; ++i) {
    const std::int32_t left = i > 0 ? i - 1 : 0, right = i + 1 < count ? i + 1 : i;
    out[i] = static_cast<std::int16_t>(
        (weights[0] * (column(left) + column(right)) + weights[1] * column(i) + kHalfOfSecondPass) >>
        kSecondPassBits);
  }
}

void HalveRow(const std::array<const std::int16_t*, 4>& rows, std::int16_t* out, std::int32_t count) {
  const auto column = [&](std::int32_t i) { return rows[0][i] + 3 * (rows[1][i] + rows[2][i]) + rows[3][i]; };
  for (std::int32_t i = 0; i < count; ++i) {
    const std::int32_t left = i > 0 ? 2 * i - 1 : 0, right = i + 1 < count ? 2 * i + 2 : 2 * i + 1;
    out[i] = static_cast<std::int16_t>(
        (column(left) + 3 * (column(2 * i) + column(2 * i + 1)) + column(right) + 32) >> 6);
  }
}

void ResidualRow(const std::int16_t* plane, std::ptrdiff_t pitch, const SourceLine& line, ColumnRun run,
                 const std::int16_t* reference, const Exposure& exposure, std::int16_t* out) {
  for (std::int32_t column = run.begin; column < run.end; ++column) {
    const std::int64_t x = line.startX + column * line.stepX, y = line.startY + column * line.stepY;
    const std::int16_t* const corner = plane + ((y >> kPositionBits) - 1) * pitch + (x >> kPositionBits) - 1;
    const SplineWeights& across = kSplineWeights[PhaseOf(x)];
    const SplineWeights& down = kSplineWeights[PhaseOf(y)];
    std::int32_t sum = kHalfOfSecondPass;
    for (std::size_t row = 0; row < 4; ++row) {
      const std::int16_t* const samples = corner + static_cast<std::ptrdiff_t>(row) * pitch;
      std::int32_t inRow = kHalfOfFirstPass;
      for (std::size_t i = 0; i < 4; ++i) inRow += across[i] * samples[i];
      sum += down[row] * (inRow >> kFirstPassBits);
    }
    const std::int32_t sample = sum >> kSecondPassBits;
    const std::int32_t expected =
        (reference[column] * exposure.gain + exposure.offset + (1 << (kExposureBits - 1))) >> kExposureBits;
    out[column] = static_cast<std::int16_t>(sample - expected);
  }
}

CellSums SumCell(const std::int16_t* reference, const std::int16_t* residuals, std::ptrdiff_t pitch,
                 std::int32_t width, std::int32_t height, const RobustWeight& weight) {
  CellSums sums;
  for (std::int32_t row = 0; row < height; ++row, reference += pitch, residuals += pitch) {
    for (std::int32_t i = 0; i < width; ++i) {
      const std::int32_t r = residuals[i], w = WeightOf(r, weight);
      if (w == 0) continue;
      const Gradient g = GradientAt(reference - pitch, reference, reference + pitch, i);
      const std::int32_t b = reference[i] - kMiddleBrightness;
      const std::int32_t wx = MultiplyFractions(w, g.x), wy = MultiplyFractions(w, g.y);
      const std::int32_t wb = MultiplyFractions(w, b), wr = MultiplyFractions(w, r);
      sums.xx += wx * g.x;
      sums.xy += wx * g.y;
      sums.yy += wy * g.y;
      sums.xb += wx * b;
      sums.yb += wy * b;
      sums.x += wx;
      sums.y += wy;
      sums.bb += wb * b;
      sums.b += wb;
      sums.one += w;
      sums.xr += wx * r;
      sums.yr += wy * r;
      sums.br += wb * r;
      sums.r += wr;
    }
  }
  return sums;
}

std::int32_t SumCappedDifferences(const std::int16_t* a, const std::int16_t* b, std::int32_t count,
                                  std::int32_t offset, std::int32_t cap) {
  std::int32_t sum = 0;
  for (std::int32_t i = 0; i < count; ++i) sum += std::min(std::abs(b[i] - a[i] - offset), cap);
  return sum;
}

void AddGradientProducts(const std::array<const std::int16_t*, 3>& a,
                         const std::array<const std::int16_t*, 3>& b, ColumnRun run,
                         GradientProducts& products) {
  for (std::int32_t i = run.begin; i < run.end; ++i) {
    const Gradient ga = GradientAt(a[0], a[1], a[2], i), gb = GradientAt(b[0], b[1], b[2], i);
    products.aa += ga.x * ga.x + ga.y * ga.y;
    products.ab += ga.x * gb.x + ga.y * gb.y;
    products.bb += gb.x * gb.x + gb.y * gb.y;
  }
}

}  // namespace precise
