#include <algorithm>
#include <cstdlib>

#include "precise/cubicweights.h"
#include "precise/loops.h"
#include "precise/loops_rows.h"
#include "precise/sourceline.h"

namespace precise {
namespace {

std::size_t PhaseOf(std::int64_t position) {
  return static_cast<std::size_t>(position >> (kPositionBits - kPhaseBits)) & (kPhases - 1);
}

using SplineWeights = std::array<std::int16_t, 4>;

/// Weights of the cubic B-spline for four neighbours at each phase t, a position between the second and the
/// third: (1 - t)³ / 6, what the others leave of 1, (1 + 3·t·(1 + t) - 3·t³) / 6 and t³ / 6.
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
static_assert(kSplineWeights[0] == SplineWeights{kSplineSide, kSplineMiddle, kSplineSide, 0});

/// The weight in 1/32768.
std::int32_t WeightOf(std::int32_t residual, const RobustWeight& weight) {
  const std::int32_t distance = std::abs(residual);
  if (distance >= weight.limit) return 0;
  const std::int32_t share = distance * weight.scale;
  const std::int32_t root = 32767 - MultiplyFractions(share, share);
  return MultiplyFractions(root, root);
}

/// A position rounded to 1/256 sample.
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
template <class Sample>
struct Inside {
  std::int32_t operator()(std::ptrdiff_t x, std::ptrdiff_t y) const {
    return SampleAt<Sample>(plane.samples + y * plane.strideBytes, x, LargestSample(plane.bits));
  }
  const SourcePlane& plane;
};

/// Reads samples of a plane whose outermost samples continue beyond its edges.
template <class Sample>
struct AtEdges {
  std::int32_t operator()(std::ptrdiff_t x, std::ptrdiff_t y) const {
    return Inside<Sample>{plane}(std::clamp<std::ptrdiff_t>(x, 0, plane.width - 1),
                                 std::clamp<std::ptrdiff_t>(y, 0, plane.height - 1));
  }
  const SourcePlane& plane;
};

struct Nearest {
  static constexpr std::int32_t kBefore = 0, kAfter = 1;

  template <class Read>
  static std::int32_t At(const Read& read, int, std::int64_t x, std::int64_t y) {
    constexpr std::int64_t kHalf = std::int64_t{1} << (kPositionBits - 1);
    return read((x + kHalf) >> kPositionBits, (y + kHalf) >> kPositionBits);
  }
};

struct Bilinear {
  static constexpr std::int32_t kBefore = 0, kAfter = 1;

  template <class Read>
  static std::int32_t At(const Read& read, int, std::int64_t x, std::int64_t y) {
    constexpr std::uint32_t kOne = kPhases, kHalf = kOne * kOne / 2;
    const RoundedPosition column(x), row(y);
    const auto right = static_cast<std::uint32_t>(column.phase), down = static_cast<std::uint32_t>(row.phase);
    const auto inRow = [&](std::ptrdiff_t of) {
      return static_cast<std::uint32_t>(read(column.whole, of)) * (kOne - right) +
             static_cast<std::uint32_t>(read(column.whole + 1, of)) * right;
    };
    const std::uint32_t sum = inRow(row.whole) * (kOne - down) + inRow(row.whole + 1) * down + kHalf;
    return static_cast<std::int32_t>(sum >> (2 * kPhaseBits));
  }
};

struct Bicubic {
  static constexpr std::int32_t kBefore = 1, kAfter = 2;

  /// The positive weights sum to at most 1.1875, the negative ones to at least -0.1875. So the largest sum is
  /// that of the second pass over samples of 16 bits: 65535 · (1.1875² + 0.1875²) · 2^14, which 31 bits hold.
  template <class Read>
  static std::int32_t At(const Read& read, int bits, std::int64_t x, std::int64_t y) {
    const int firstPass = FirstPassShift(bits), secondPass = 2 * kWeightBits - firstPass;
    const RoundedPosition column(x), row(y);
    const CubicWeights &across = kCubicWeights[column.phase], &down = kCubicWeights[row.phase];
    std::int32_t sum = 1 << (secondPass - 1);
    for (std::ptrdiff_t of = 0; of < 4; ++of) {
      std::int32_t inRow = 1 << (firstPass - 1);
      for (std::ptrdiff_t i = 0; i < 4; ++i)
        inRow += across[static_cast<std::size_t>(i)] * read(column.whole - 1 + i, row.whole - 1 + of);
      sum += down[static_cast<std::size_t>(of)] * (inRow >> firstPass);
    }
    return std::clamp(sum >> secondPass, 0, LargestSample(bits));
  }
};

template <class Sampler, class Sample, class Read>
void WarpRun(const Read& read, const SourceLine& line, ColumnRun run, std::uint8_t* out) {
  for (std::int32_t column = run.begin; column < run.end; ++column) {
    const auto sample = static_cast<Sample>(Sampler::At(
        read, read.plane.bits, line.startX + column * line.stepX, line.startY + column * line.stepY));
    std::memcpy(out + column * std::ptrdiff_t{sizeof sample}, &sample, sizeof sample);
  }
}

template <class Sampler, class Sample>
void WarpRow(const SourcePlane& plane, const WarpedRow& row, std::uint8_t* out) {
  const AtEdges<Sample> atEdges{plane};
  const ColumnRun inside =
      ColumnsWithSamples(row.line, plane, Sampler::kBefore, Sampler::kAfter, row.covered);
  WarpRun<Sampler, Sample>(atEdges, row.line, {row.covered.begin, inside.begin}, out);
  WarpRun<Sampler, Sample>(Inside<Sample>{plane}, row.line, inside, out);
  WarpRun<Sampler, Sample>(atEdges, row.line, {inside.end, row.covered.end}, out);
}

template <class Sampler>
void Warp(const CositedPlanes& planes, const WarpedRow* rows, std::int32_t count) {
  for (std::size_t i = 0; i < planes.size() && planes[i].samples != nullptr; ++i)
    for (const WarpedRow* row = rows; row != rows + count; ++row)
      if (planes[i].bits == 8)
        WarpRow<Sampler, std::uint8_t>(planes[i], *row, row->out[i]);
      else
        WarpRow<Sampler, std::uint16_t>(planes[i], *row, row->out[i]);
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
      sum += down[row] * (inRow >> kFirstPassShift);
    }
    const std::int32_t sample = sum >> kSecondPassShift;
    const std::int32_t expected =
        (reference[column] * exposure.gain + exposure.offset + (1 << (kExposureBits - 1))) >> kExposureBits;
    out[column] = static_cast<std::int16_t>(sample - expected);
  }
}

CellSums SumCell(const std::int16_t* reference, const std::int16_t* residuals, std::ptrdiff_t pitch,
                 std::int32_t width, std::int32_t height, const RobustWeight& weight) {
  CellSums sums = {};
  const auto add = [](std::int32_t& sum, std::int32_t a, std::int32_t b) { sum += a * b; };
  for (std::int32_t row = 0; row < height; ++row, reference += pitch, residuals += pitch) {
    for (std::int32_t i = 0; i < width; ++i) {
      const std::int32_t r = residuals[i], w = WeightOf(r, weight);
      if (w == 0) continue;
      const Gradient g = GradientAt(reference - pitch, reference, reference + pitch, i);
      const std::int32_t b = reference[i] - kMiddleBrightness;
      AddToCell<std::int32_t, std::int32_t>(sums, {w, g.x, g.y, b, r, 1}, MultiplyFractions, add);
    }
  }
  return sums;
}

}  // namespace

constinit const Loops kScalarLoops = {"scalar",      AverageBlocks,       SmoothRow,
                                      HalveRow,      ResidualRow,         CountBelow,
                                      SumCell,       AddGradientProducts, SumCappedDifferences,
                                      Warp<Nearest>, Warp<Bilinear>,      Warp<Bicubic>};

}  // namespace precise
