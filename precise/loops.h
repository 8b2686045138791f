#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace precise {

/// Columns begin … end - 1 of a row; none when end <= begin.
struct ColumnRun {
  std::int32_t begin, end;
};

/// A source position that advances linearly along a row: column c reads at x = startX + c·stepX,
/// y = startY + c·stepY. Whole samples stand above the lowest `kPositionBits` bits.
struct SourceLine {
  std::int64_t startX, startY;
  std::int64_t stepX, stepY;
};

inline constexpr int kPositionBits = 32;

// Pyramid planes hold brightness in quarters of an 8-bit step, 0 … 1020.

/// out[i] = mean of block i of 2^blockShift columns and rows, for samples of `bits` bits. `samples` is the
/// first row of the blocks.
void AverageBlocks(const std::uint8_t* samples, std::ptrdiff_t strideBytes, int bits, int blockShift,
                   std::int16_t* out, std::int32_t count);

/// out[i] = what `ResidualRow` samples at sample i of the middle row; a row's end samples count as their own
/// neighbours.
void SmoothRow(const std::array<const std::int16_t*, 3>& rows, std::int16_t* out, std::int32_t count);

/// out[i] = binomial 4 × 4 mean around samples 2·i and 2·i + 1 of the middle rows, which have `count` pairs;
/// a row's end samples count as their own neighbours.
void HalveRow(const std::array<const std::int16_t*, 4>& rows, std::int16_t* out, std::int32_t count);

/// How a frame's brightness follows from that of the frame before: a·gain + offset, in 1/16384.
struct Exposure {
  std::int32_t gain = 1 << 14, offset = 0;
};

/// out[c] = sample of the plane by the cubic B-spline of its 4 × 4 neighbours, less the exposed sample
/// reference[c], for each column of the run. All samples read exist.
///
/// The spline smooths, and so is the reference smoothed. Bilinear or interpolating cubic weights delay fine
/// detail, which draws estimates towards half samples, by 0.01 sample.
void ResidualRow(const std::int16_t* plane, std::ptrdiff_t pitch, const SourceLine& line, ColumnRun run,
                 const std::int16_t* reference, const Exposure& exposure, std::int16_t* out);

/// What a sample without a counterpart has for a residual.
inline constexpr std::int16_t kNoResidual = 32767;

/// Tukey's biweight (Beaton and Tukey 1974) of residuals: (1 - (r·scale / 2^15)²)², and 0 from `limit` on.
struct RobustWeight {
  std::int32_t scale, limit;
};

/// Cells are the units that sums are taken over.
inline constexpr std::int32_t kCellSide = 16;

/// Weighted sums over a cell of gradients x and y, brightness b (less 512), and residual r: w·xx, w·xy, ….
/// Weights count 32768.
struct CellSums {
  std::int32_t xx = 0, xy = 0, yy = 0, xb = 0, yb = 0, x = 0, y = 0, bb = 0, b = 0, one = 0;
  std::int32_t xr = 0, yr = 0, br = 0, r = 0;
};

/// Sums over `width` × `height` samples, at most a cell, of which all have neighbours. Gradients are
/// differences of the neighbours left and right, above and below. Both planes have the same pitch.
CellSums SumCell(const std::int16_t* reference, const std::int16_t* residuals, std::ptrdiff_t pitch,
                 std::int32_t width, std::int32_t height, const RobustWeight& weight);

/// Products of the gradients of two planes, for the likeness of their structure.
struct GradientProducts {
  std::int64_t aa = 0, ab = 0, bb = 0;
};

/// Adds samples begin … end - 1 of the middle rows.
void AddGradientProducts(const std::array<const std::int16_t*, 3>& a,
                         const std::array<const std::int16_t*, 3>& b, ColumnRun run,
                         GradientProducts& products);

/// Sum of min(|b[i] - a[i] - offset|, cap).
std::int32_t SumCappedDifferences(const std::int16_t* a, const std::int16_t* b, std::int32_t count,
                                  std::int32_t offset, std::int32_t cap);

/// A plane that is sampled, of bytes.
struct SourcePlane {
  const std::uint8_t* samples;
  std::ptrdiff_t strideBytes;
  std::int32_t width, height;
};

/// out[c] = sample of the plane for each column of the run.
using WarpRow = void (*)(const SourcePlane& plane, const SourceLine& line, ColumnRun run, std::uint8_t* out);

/// How a picture is sampled. Positions are rounded to 1/256 sample, or to a whole one.
struct WarpLoops {
  WarpRow inside;   ///< every sample that is read exists
  WarpRow atEdges;  ///< beyond the plane's edge its end samples go on
  /// Samples that are read before and after the one that a position is rounded down to.
  std::int32_t before, after;
};

extern const WarpLoops kNearestLoops, kBilinearLoops;
/// Keys' cubic convolution (1981).
extern const WarpLoops kBicubicLoops;

}  // namespace precise
