#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "base/columnrun.h"
#include "base/simd.h"
#include "precise/picture.h"

namespace precise {

/// A source position that advances linearly along a row: column c reads at x = startX + c·stepX,
/// y = startY + c·stepY. Whole samples stand above the lowest `kPositionBits` bits.
struct SourceLine {
  std::int64_t startX, startY;
  std::int64_t stepX, stepY;
};

inline constexpr int kPositionBits = 32;

inline constexpr int kExposureBits = 14;

/// How a frame's brightness follows from that of the frame before: a·gain + offset, in 2^-kExposureBits.
struct Exposure {
  std::int32_t gain = 1 << kExposureBits, offset = 0;
};

/// The middle of the brightness in pyramid planes.
inline constexpr std::int32_t kMiddleBrightness = 512;

/// What a sample without a counterpart has for a residual.
inline constexpr std::int16_t kNoResidual = 32767;

/// Tukey's biweight (Beaton and Tukey 1974) of residuals: (1 - (r·scale / 2^15)²)², and 0 from `limit` on.
/// The scale is 1 … 32767, the limit 32768 / scale, rounded up.
struct RobustWeight {
  std::int32_t scale, limit;
};

/// Cells are the units that sums are taken over.
inline constexpr std::int32_t kCellSide = 16;

/// Weighted sums over a cell of gradients x and y, brightness b (less its middle), and residual r: w·xx,
/// w·xy, …. Weights count 32768.
struct CellSums {
  std::int32_t xx = 0, xy = 0, yy = 0, xb = 0, yb = 0, x = 0, y = 0, bb = 0, b = 0, one = 0;
  std::int32_t xr = 0, yr = 0, br = 0, r = 0;
};

/// Products of the gradients of two planes, for the likeness of their structure.
struct GradientProducts {
  std::int64_t aa = 0, ab = 0, bb = 0;
};

/// A plane that is sampled, of bytes, or with more than 8 bits of 16-bit words. A sample above what its bits
/// can say counts as the largest.
struct SourcePlane {
  const std::uint8_t* samples;
  std::ptrdiff_t strideBytes;
  std::int32_t width, height;
  int bits;
};

using AlikePlanes = std::array<SourcePlane, kMaxAlikePlanes>;

/// A row that a warp writes, in each plane.
struct WarpedRow {
  SourceLine line;
  ColumnRun covered;  ///< columns that are written
  std::array<std::uint8_t*, kMaxAlikePlanes> out;
};

inline constexpr std::int32_t kMaxWarpedRows = 16;

/// Sample c at `out` = sample of the plane along the line, for each covered column of each row. Beyond the
/// plane's edges its end samples go on. Positions are rounded to 1/256 sample, or to a whole one.
///
/// The rows are at most `kMaxWarpedRows`, of lines with the same steps. The planes differ only in where their
/// samples are; an absent one has none.
using WarpRows = void (*)(const AlikePlanes& planes, const WarpedRow* rows, std::int32_t count);

/// The per-pixel loops. Pyramid planes hold brightness in quarters of an 8-bit step, 0 …
/// 1024. Callers guarantee that every sample read exists; no loop checks.
///
/// The scalar loops define the results; other tables give the same bytes.
struct Loops {
  const char* name;

  /// out[i] = mean of block i of 2^blockShift columns and rows, for samples of `bits` bits. `samples` is the
  /// first row of the blocks, whose sides are at most 128.
  void (*averageBlocks)(const std::uint8_t* samples, std::ptrdiff_t strideBytes, int bits, int blockShift,
                        std::int16_t* out, std::int32_t count);

  /// out[i] = what `residualRow` samples at sample i of the middle row; a row's end samples count as their
  /// own neighbours.
  void (*smoothRow)(const std::array<const std::int16_t*, 3>& rows, std::int16_t* out, std::int32_t count);

  /// out[i] = binomial 4 × 4 mean around samples 2·i and 2·i + 1 of the middle rows, which have `count`
  /// pairs; a row's end samples count as their own neighbours.
  void (*halveRow)(const std::array<const std::int16_t*, 4>& rows, std::int16_t* out, std::int32_t count);

  /// out[c] = sample of the plane by the cubic B-spline of its 4 × 4 neighbours, less the exposed sample
  /// reference[c], for each column of the run. The plane's rows have `pitch` samples.
  ///
  /// The spline smooths, and so is the reference smoothed. Bilinear or interpolating cubic weights delay fine
  /// detail, which draws estimates towards half samples, by 0.01 sample.
  void (*residualRow)(const std::int16_t* plane, std::ptrdiff_t pitch, const SourceLine& line, ColumnRun run,
                      const std::int16_t* reference, const Exposure& exposure, std::int16_t* out);

  /// How many residuals are below `limit`, at most 32767, in size.
  std::int32_t (*countBelow)(const std::int16_t* residuals, std::int32_t count, std::int32_t limit);

  /// Sums over `width` × `height` samples, at most a cell, of which all have neighbours. Gradients are
  /// differences of the neighbours left and right, above and below. Both planes have the same pitch.
  CellSums (*sumCell)(const std::int16_t* reference, const std::int16_t* residuals, std::ptrdiff_t pitch,
                      std::int32_t width, std::int32_t height, const RobustWeight& weight);

  /// Adds samples begin … end - 1 of the middle rows.
  void (*addGradientProducts)(const std::array<const std::int16_t*, 3>& a,
                              const std::array<const std::int16_t*, 3>& b, ColumnRun run,
                              GradientProducts& products);

  /// Sum of min(|b[i] - a[i] - offset|, cap).
  std::int32_t (*sumCappedDifferences)(const std::int16_t* a, const std::int16_t* b, std::int32_t count,
                                       std::int32_t offset, std::int32_t cap);

  WarpRows warpNearest, warpBilinear;
  /// Four neighbours on each axis, sharper than Keys' cubic convolution (1981); see cubicweights.h.
  WarpRows warpBicubic;
};

/// The loops as they are defined.
extern const Loops kScalarLoops;

/// The loops for vectors, for AVX2 or for NEON.
extern const Loops kVectorLoops;

/// The fastest loops of this machine, at most of level `cap`.
const Loops& SelectLoops(SimdLevel cap = SimdLevel::Avx2);

}  // namespace precise
