#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "precise/fixedpoint.h"
#include "precise/loops.h"

// Loops that compilers vectorize by themselves. Each file of loops compiles a copy for its own instruction
// set. A linker that merged such copies could hand AVX2 code to every processor. So the namespace is
// anonymous, and library functions are called only where they are certain to be inlined.

namespace precise {
namespace {

/// Sample i of a row, at most `largest`.
template <class Sample>
std::int32_t SampleAt(const std::uint8_t* row, std::ptrdiff_t i, std::int32_t largest) {
  if constexpr (sizeof(Sample) == 1) {
    return row[i];
  } else {
    Sample sample;
    std::memcpy(&sample, row + i * static_cast<std::ptrdiff_t>(sizeof sample), sizeof sample);
    return sample < largest ? sample : largest;
  }
}

/// to[i] = sum of column i over the rows. 16 bits hold sums of bytes over up to 128 rows.
template <class Sample, class Sum>
void SumColumns(const std::uint8_t* samples, std::ptrdiff_t strideBytes, std::int32_t rows,
                std::int32_t largest, Sum* to, std::int32_t columns) {
  for (std::int32_t i = 0; i < columns; ++i) to[i] = 0;
  for (std::int32_t row = 0; row < rows; ++row)
    for (std::int32_t i = 0; i < columns; ++i)
      to[i] = static_cast<Sum>(to[i] + SampleAt<Sample>(samples + row * strideBytes, i, largest));
}

template <class From>
void AddPairs(const From* from, std::uint32_t* to, std::int32_t count) {
  for (std::int32_t i = 0; i < count; ++i) to[i] = std::uint32_t{from[2 * i]} + from[2 * i + 1];
}

/// Sums each column over the rows first. Then pairs of neighbours are added until one sum a block is left.
template <class Sample, class ColumnSum>
void AverageBlocksOf(const std::uint8_t* samples, std::ptrdiff_t strideBytes, int bits, int blockShift,
                     std::int16_t* out, std::int32_t count) {
  constexpr std::int32_t kColumns = 512;
  const std::int32_t blocksAtOnce = kColumns >> blockShift;
  const int shift = 2 * blockShift + bits - kBrightnessBits;
  ColumnSum columns[kColumns] = {};
  std::uint32_t sums[2][kColumns] = {};
  for (std::int32_t first = 0; first < count; first += blocksAtOnce) {
    const std::int32_t blocks = count - first < blocksAtOnce ? count - first : blocksAtOnce;
    std::int32_t width = blocks << blockShift;
    const std::ptrdiff_t column = std::ptrdiff_t{first} << blockShift;
    SumColumns<Sample>(samples + column * std::ptrdiff_t{sizeof(Sample)}, strideBytes, 1 << blockShift,
                       LargestSample(bits), columns, width);
    if (blockShift == 0)
      for (std::int32_t i = 0; i < width; ++i) sums[0][i] = columns[i];
    else
      AddPairs(columns, sums[1], width >>= 1);
    for (int halving = 1; halving < blockShift; ++halving)
      AddPairs(sums[halving % 2], sums[(halving + 1) % 2], width >>= 1);
    const std::uint32_t* const whole = sums[blockShift % 2];
    for (std::int32_t i = 0; i < blocks; ++i)
      out[first + i] = static_cast<std::int16_t>(shift > 0 ? (whole[i] + (1u << (shift - 1))) >> shift
                                                           : whole[i] << -shift);
  }
}

void AverageBlocks(const std::uint8_t* samples, std::ptrdiff_t strideBytes, int bits, int blockShift,
                   std::int16_t* out, std::int32_t count) {
  if (bits == 8)
    AverageBlocksOf<std::uint8_t, std::uint16_t>(samples, strideBytes, bits, blockShift, out, count);
  else
    AverageBlocksOf<std::uint16_t, std::uint32_t>(samples, strideBytes, bits, blockShift, out, count);
}

/// Calls `work(first, count)` for consecutive stretches of a row, at most kStretch long, as buffers and sums
/// hold no more.
constexpr std::int32_t kStretch = 512;
template <class Work>
void InStretches(std::int32_t count, Work work) {
  for (std::int32_t first = 0; first < count; first += kStretch)
    work(first, count - first < kStretch ? count - first : kStretch);
}

// Filters along rows first and rounds, exactly as `residualRow` does: two equal frames must leave no
// residual.
void SmoothRow(const std::array<const std::int16_t*, 3>& rows, std::int16_t* out, std::int32_t count) {
  InStretches(count, [&](std::int32_t first, std::int32_t columns) {
    const std::int32_t last = first + columns;
    std::int16_t padded[kStretch + 2], sums[3][kStretch];
    for (std::size_t row = 0; row < 3; ++row) {
      const std::int16_t* const samples = rows[row];
      padded[0] = samples[first > 0 ? first - 1 : 0];
      std::memcpy(padded + 1, samples + first, static_cast<std::size_t>(columns) * sizeof(std::int16_t));
      padded[columns + 1] = samples[last < count ? last : last - 1];
      for (std::int32_t i = 0; i < columns; ++i)
        sums[row][i] = static_cast<std::int16_t>(
            (kSplineSide * (padded[i] + padded[i + 2]) + kSplineMiddle * padded[i + 1] + kHalfOfFirstPass) >>
            kFirstPassShift);
    }
    for (std::int32_t i = 0; i < columns; ++i)
      out[first + i] = static_cast<std::int16_t>(
          (kSplineSide * (sums[0][i] + sums[2][i]) + kSplineMiddle * sums[1][i] + kHalfOfSecondPass) >>
          kSecondPassShift);
  });
}

void HalveRow(const std::array<const std::int16_t*, 4>& rows, std::int16_t* out, std::int32_t count) {
  const std::int16_t *const a = rows[0], *const b = rows[1], *const c = rows[2], *const d = rows[3];
  const auto inColumn = [=](std::int32_t i) {
    return static_cast<std::int16_t>(a[i] + 3 * (b[i] + c[i]) + d[i]);
  };
  InStretches(count, [=](std::int32_t first, std::int32_t pairs) {
    std::int16_t sums[2 * kStretch + 2];
    const std::int32_t last = first + pairs;
    for (std::int32_t i = 0; i < 2 * pairs; ++i) sums[i + 1] = inColumn(2 * first + i);
    sums[0] = inColumn(first > 0 ? 2 * first - 1 : 0);
    sums[2 * pairs + 1] = inColumn(last < count ? 2 * last : 2 * last - 1);
    for (std::int32_t i = 0; i < pairs; ++i)
      out[first + i] = static_cast<std::int16_t>(
          (sums[2 * i] + 3 * (sums[2 * i + 1] + sums[2 * i + 2]) + sums[2 * i + 3] + 32) >> 6);
  });
}

std::int32_t CountBelow(const std::int16_t* residuals, std::int32_t count, std::int32_t limit) {
  const auto high = static_cast<std::int16_t>(limit), low = static_cast<std::int16_t>(-limit);
  std::int32_t below = 0;
  InStretches(count, [&](std::int32_t first, std::int32_t columns) {
    std::int16_t inStretch = 0;
    for (std::int32_t i = first; i < first + columns; ++i)
      inStretch = static_cast<std::int16_t>(inStretch + ((residuals[i] < high) & (residuals[i] > low)));
    below += inStretch;
  });
  return below;
}

struct Gradient {
  std::int32_t x, y;
};

Gradient GradientAt(const std::int16_t* above, const std::int16_t* row, const std::int16_t* below,
                    std::int32_t i) {
  return {row[i + 1] - row[i - 1], below[i] - above[i]};
}

/// Samples of a cell, one or a vector: their weights in 1/32768, gradients, brightness, residuals, and ones.
template <class Value>
struct CellSamples {
  Value w, x, y, b, r, one;
};

/// Adds the samples to the sums. `weigh(w, a)` is w·a in the unit of a; `add(sum, a, b)` adds a·b.
template <class Sum, class Value, class Weigh, class Add>
void AddToCell(CellSumsOf<Sum>& sums, const CellSamples<Value>& samples, Weigh weigh, Add add) {
  const auto& [w, x, y, b, r, one] = samples;
  const Value wx = weigh(w, x), wy = weigh(w, y), wb = weigh(w, b);
  add(sums.xx, wx, x);
  add(sums.xy, wx, y);
  add(sums.yy, wy, y);
  add(sums.xb, wx, b);
  add(sums.yb, wy, b);
  add(sums.x, wx, one);
  add(sums.y, wy, one);
  add(sums.bb, wb, b);
  add(sums.b, wb, one);
  add(sums.one, w, one);
  add(sums.xr, wx, r);
  add(sums.yr, wy, r);
  add(sums.br, wb, r);
  add(sums.r, weigh(w, r), one);
}

void AddGradientProducts(const std::array<const std::int16_t*, 3>& a,
                         const std::array<const std::int16_t*, 3>& b, ColumnRun run,
                         GradientProducts& products) {
  // Gradients are within ±1024, so 32 bits hold the sums of a stretch.
  InStretches(run.end - run.begin, [&](std::int32_t first, std::int32_t columns) {
    std::uint32_t aa = 0, bb = 0;
    std::int32_t ab = 0;
    for (std::int32_t i = run.begin + first; i < run.begin + first + columns; ++i) {
      const Gradient ga = GradientAt(a[0], a[1], a[2], i), gb = GradientAt(b[0], b[1], b[2], i);
      aa += static_cast<std::uint32_t>(ga.x * ga.x + ga.y * ga.y);
      ab += ga.x * gb.x + ga.y * gb.y;
      bb += static_cast<std::uint32_t>(gb.x * gb.x + gb.y * gb.y);
    }
    products.aa += aa;
    products.ab += ab;
    products.bb += bb;
  });
}

std::int32_t SumCappedDifferences(const std::int16_t* a, const std::int16_t* b, std::int32_t count,
                                  std::int32_t offset, std::int32_t cap) {
  std::int32_t sum = 0;
  for (std::int32_t i = 0; i < count; ++i) {
    const std::int32_t difference = b[i] - a[i] - offset, size = difference < 0 ? -difference : difference;
    sum += size < cap ? size : cap;
  }
  return sum;
}

}  // namespace
}  // namespace precise
