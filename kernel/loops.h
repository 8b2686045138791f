#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "base/columnrun.h"

/// Interpolation weighs by the highest 9 bits of a position's fraction.
inline constexpr int kWeightBits = 9;
inline constexpr std::int32_t kWeightOne = 1 << kWeightBits;
/// The nearest sample is the next one from this weight on: 255, not the half-way 256.
inline constexpr std::int32_t kNearestThreshold = 255;

/// A source position that advances linearly along a destination row, in fixed point: column c reads at
/// x = startX + c·stepX, y = startY + c·stepY, whose whole samples stand above the lowest `fractionBits` bits
/// (at least `kWeightBits`).
struct SourceLine {
  std::int64_t startX, startY;
  std::int64_t stepX, stepY;
  int fractionBits;
};

/// Least-squares sums over gradients x and y and the time difference t.
struct TranslationSums {
  std::int64_t xx = 0, xy = 0, yy = 0;
  std::int64_t xt = 0, yt = 0;
};

/// The same with the rotational derivative r.
struct RotationSums {
  std::int64_t rr = 0, rx = 0, ry = 0, xx = 0, xy = 0, yy = 0;
  std::int64_t rt = 0, xt = 0, yt = 0;
};

/// Neighbouring rows of a plane in memory order, each at the same column.
using ThreeRows = std::array<const std::int16_t*, 3>;
using FiveRows = std::array<const std::int16_t*, 5>;

/// A row of a rotated plane: the samples with their neighbour rows, and the same row turned half a degree
/// less and half a degree more.
struct RotatedRow {
  ThreeRows samples;
  const std::int16_t* turnedLess;
  const std::int16_t* turnedMore;
};

/// The per-pixel loops, one row a call. Loops check nothing: callers pass only samples that lie inside their
/// plane or frame. Planes hold values 0 … 1020. Frames have rows of `strideBytes` bytes and at most 2^31 - 1
/// bytes altogether.
///
/// The scalar loops define the results; all other tables give the same bytes.
struct KernelOps {
  const char* name;

  /// Copies bytes that will not be read again soon. The two ranges do not overlap.
  void (*copyBytes)(const std::uint8_t* from, std::uint8_t* to, std::ptrdiff_t count);

  /// grey[i] = blue + green + 2·red of pixel i.
  void (*greyRow)(const std::uint8_t* pixels, std::int16_t* grey, std::int32_t count);

  /// out[i] = 5 × 5 Gaussian mean around sample 2·i of the middle row.
  void (*reduceRow)(const FiveRows& rows, std::int16_t* out, std::int32_t count);

  /// Adds `count` samples to the sums. `previous` and `current` point to the first two samples to compare.
  void (*addTranslationRow)(const std::int16_t* previous, const ThreeRows& current, std::int32_t count,
                            TranslationSums& sums);
  void (*addRotationRow)(const std::int16_t* previous, const RotatedRow& current, std::int32_t count,
                         RotationSums& sums);

  /// out[c] = bilinear sample of the plane for each column of the run.
  void (*sampleRow)(const std::int16_t* plane, std::ptrdiff_t pitch, const SourceLine& line, ColumnRun run,
                    std::int16_t* out);

  /// Pixel c of the row at `out` = sample of the frame for each column of the run.
  void (*warpRowNearest)(const std::uint8_t* frame, std::ptrdiff_t strideBytes, const SourceLine& line,
                         ColumnRun run, std::uint8_t* out);
  void (*warpRowBilinear)(const std::uint8_t* frame, std::ptrdiff_t strideBytes, const SourceLine& line,
                          ColumnRun run, std::uint8_t* out);
};

/// The plain loops, which define the results.
extern const KernelOps kScalarOps;

#if defined(__x86_64__)
/// The same loops for processors with AVX2.
namespace avx2 {

void CopyBytes(const std::uint8_t* from, std::uint8_t* to, std::ptrdiff_t count);
void GreyRow(const std::uint8_t* pixels, std::int16_t* grey, std::int32_t count);
void ReduceRow(const FiveRows& rows, std::int16_t* out, std::int32_t count);
void AddTranslationRow(const std::int16_t* previous, const ThreeRows& current, std::int32_t count,
                       TranslationSums& sums);
void AddRotationRow(const std::int16_t* previous, const RotatedRow& current, std::int32_t count,
                    RotationSums& sums);
void SampleRow(const std::int16_t* plane, std::ptrdiff_t pitch, const SourceLine& line, ColumnRun run,
               std::int16_t* out);
void WarpRowNearest(const std::uint8_t* frame, std::ptrdiff_t strideBytes, const SourceLine& line,
                    ColumnRun run, std::uint8_t* out);
void WarpRowBilinear(const std::uint8_t* frame, std::ptrdiff_t strideBytes, const SourceLine& line,
                     ColumnRun run, std::uint8_t* out);

}  // namespace avx2
#endif
