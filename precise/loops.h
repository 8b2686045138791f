#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "base/columnrun.h"
#include "base/simd.h"
#include "precise/picture.h"

namespace precise {

/// A source position that advances linearly along a row: column c reads at x = startX + c·stepX,
/// y = startY + c·stepY. Positions are in samples, in fixed point with `kPositionBits` fraction bits.
struct SourceLine {
  std::int64_t startX, startY;
  std::int64_t stepX, stepY;
};

inline constexpr int kPositionBits = 32;

inline constexpr int kExposureBits = 14;

/// The change of brightness between two frames: b becomes (b·gain + offset) / 2^kExposureBits, rounded to the
/// nearest. The sum fits 32 bits.
struct Exposure {
  std::int32_t gain = 1 << kExposureBits, offset = 0;
};

/// The middle of the brightness in pyramid planes.
inline constexpr std::int32_t kMiddleBrightness = 512;

/// The residual of a sample that has no counterpart in the other frame.
inline constexpr std::int16_t kNoResidual = 32767;

/// Tukey's biweight of a residual r: (1 - (r·scale / 2^15)²)², and 0 from `limit` on (Beaton and Tukey, "The
/// fitting of power series, meaning polynomials, illustrated on band-spectroscopic data", 1974). The scale is
/// 1 … 32767, the limit 32768 / scale, rounded up.
struct RobustWeight {
  std::int32_t scale, limit;
};

/// The side of a cell, in samples. Normal equations are summed cell by cell.
inline constexpr std::int32_t kCellSide = 16;

/// Weighted sums over a cell. Each is named for what it sums: the gradients x and y, the brightness b (less
/// its middle), the residual r, or a product of two of these. `one` sums the weights themselves, in 1/32768.
template <class Sum>
struct CellSumsOf {
  Sum xx, xy, yy, xb, yb, x, y, bb, b, one, xr, yr, br, r;
};
using CellSums = CellSumsOf<std::int32_t>;

/// Sums of the scalar products of gradients of two planes a and b.
struct GradientProducts {
  std::int64_t aa = 0, ab = 0, bb = 0;
};

/// A plane that is sampled: of bytes, or of 16-bit words where `bits` is above 8. A word that is larger than
/// `bits` allow counts as the largest that they allow.
struct SourcePlane {
  const std::uint8_t* samples;
  std::ptrdiff_t strideBytes;
  std::int32_t width, height;
  int bits;
};

/// Planes that differ in their samples only: size, depth and positions are the same. An absent one has none.
using CositedPlanes = std::array<SourcePlane, kMaxCositedPlanes>;

/// A row that a warp writes, in each of the co-sited planes.
struct WarpedRow {
  SourceLine line;
  ColumnRun covered;  ///< columns that are written
  std::array<std::uint8_t*, kMaxCositedPlanes> out;
};

inline constexpr std::int32_t kMaxWarpedRows = 16;

/// Sample c at `out` = the plane sampled at column c of the line, for each covered column of each row and
/// each plane. The plane's outermost samples continue beyond its edges. Positions are rounded to 1/256
/// sample; `warpNearest` rounds them to whole samples. There are 1 … `kMaxWarpedRows` rows, whose lines have
/// the same steps.
using WarpRows = void (*)(const CositedPlanes& planes, const WarpedRow* rows, std::int32_t count);

/// The per-pixel loops. Pyramid planes hold brightness in quarters of an 8-bit step, 0 … 1024. Warps may be
/// given lines that leave the plane. For all other loops the caller guarantees that every sample read exists.
///
/// The scalar loops define the results; other tables give the same bytes.
struct Loops {
  const char* name;

  /// out[i] = mean brightness of block i, which has 2^blockShift columns and rows, at most 128. `samples` is
  /// the first row of the blocks; samples have `bits` bits.
  void (*averageBlocks)(const std::uint8_t* samples, std::ptrdiff_t strideBytes, int bits, int blockShift,
                        std::int16_t* out, std::int32_t count);

  /// out[i] = what `residualRow` samples at sample i of the middle row. A row's end samples count as their
  /// own neighbours.
  void (*smoothRow)(const std::array<const std::int16_t*, 3>& rows, std::int16_t* out, std::int32_t count);

  /// out[i] = mean of the 4 × 4 samples around samples 2·i and 2·i + 1 of the two middle rows, with binomial
  /// weights 1, 3, 3, 1 on each axis. Rows have `count` pairs. A row's end samples count as their own
  /// neighbours.
  void (*halveRow)(const std::array<const std::int16_t*, 4>& rows, std::int16_t* out, std::int32_t count);

  /// out[c] = the plane sampled at column c of the line, less reference[c] after the exposure, for each
  /// column of the run. The plane's rows have `pitch` samples. Positions are rounded down to 1/256 sample.
  /// Weights are the cubic B-spline of 4 × 4 neighbours (Hou and Andrews, "Cubic splines for image
  /// interpolation and digital filtering", 1978).
  ///
  /// The spline smooths, so the reference must be smooth, too. Bilinear and interpolating cubic weights have
  /// a phase error at fine detail, which biases estimates towards half samples by 0.01 sample.
  void (*residualRow)(const std::int16_t* plane, std::ptrdiff_t pitch, const SourceLine& line, ColumnRun run,
                      const std::int16_t* reference, const Exposure& exposure, std::int16_t* out);

  /// How many residuals have a magnitude below `limit`, which is 0 … 32767.
  std::int32_t (*countBelow)(const std::int16_t* residuals, std::int32_t count, std::int32_t limit);

  /// Sums over `width` × `height` samples, at most a cell, which all have neighbours. Gradients are
  /// differences of the right and left neighbour, and of the lower and upper one. Both planes have the same
  /// pitch, in samples.
  CellSums (*sumCell)(const std::int16_t* reference, const std::int16_t* residuals, std::ptrdiff_t pitch,
                      std::int32_t width, std::int32_t height, const RobustWeight& weight);

  /// Adds the products at samples begin … end - 1 of the middle rows. Gradients are as in `sumCell`.
  void (*addGradientProducts)(const std::array<const std::int16_t*, 3>& a,
                              const std::array<const std::int16_t*, 3>& b, ColumnRun run,
                              GradientProducts& products);

  /// The sum of min(|b[i] - a[i] - offset|, cap) over `count` samples. It fits 32 bits.
  std::int32_t (*sumCappedDifferences)(const std::int16_t* a, const std::int16_t* b, std::int32_t count,
                                       std::int32_t offset, std::int32_t cap);

  WarpRows warpNearest, warpBilinear;
  /// Four neighbours on each axis, with the weights of cubicweights.h.
  WarpRows warpBicubic;
};

/// The definition of the loops.
extern const Loops kScalarLoops;

/// The loops for vectors: AVX2 on x86-64, NEON on 64-bit ARM. Other processors have none.
extern const Loops kVectorLoops;

/// The fastest loops of this machine, at most of level `cap`.
const Loops& SelectLoops(SimdLevel cap = SimdLevel::Avx2);

}  // namespace precise
