#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "base/columnrun.h"

/// The highest 9 bits of a position's fraction are the interpolation weight.
inline constexpr int kWeightBits = 9;
inline constexpr std::int32_t kWeightOne = 1 << kWeightBits;
/// From this weight on, nearest sampling takes the next sample: 255 of 512, not 256 (kept for compatibility).
inline constexpr std::int32_t kNearestThreshold = 255;

/// A source position that advances linearly along a destination row. Column c reads at x = startX + c·stepX,
/// y = startY + c·stepY. Positions are fixed-point numbers with `fractionBits` fraction bits, at least
/// `kWeightBits`.
struct SourceLine {
  std::int64_t startX, startY;
  std::int64_t stepX, stepY;
  int fractionBits;
};

/// Least-squares sums of products of the gradients x and y and the temporal difference t.
struct TranslationSums {
  std::int64_t xx = 0, xy = 0, yy = 0;
  std::int64_t xt = 0, yt = 0;
};

/// The same sums with the rotational derivative r as well.
struct RotationSums {
  std::int64_t rr = 0, rx = 0, ry = 0, xx = 0, xy = 0, yy = 0;
  std::int64_t rt = 0, xt = 0, yt = 0;
};

/// Pointers into neighbouring rows of a plane, in memory order, all at the same column.
using ThreeRows = std::array<const std::int16_t*, 3>;
using FiveRows = std::array<const std::int16_t*, 5>;

/// A row of a rotated plane with its neighbour rows, and the same row of the plane turned half a degree less
/// and half a degree more.
struct RotatedRow {
  ThreeRows samples;
  const std::int16_t* turnedLess;
  const std::int16_t* turnedMore;
};

/// The per-pixel loops, one row per call. Loops check no bounds: callers pass only samples that lie inside
/// their plane or frame. Planes hold values 0 … 1020. Frames have rows of `strideBytes` bytes and at most
/// 2^31 - 1 bytes altogether.
///
/// The scalar loops define the results; all other tables give the same bytes.
struct KernelOps {
  const char* name;

  /// Copies bytes; the ranges do not overlap. Made for a copy that is not read again soon.
  void (*copyBytes)(const std::uint8_t* from, std::uint8_t* to, std::ptrdiff_t count);

  /// grey[i] = blue + green + 2·red of pixel i.
  void (*greyRow)(const std::uint8_t* pixels, std::int16_t* grey, std::int32_t count);

  /// out[i] = 5 × 5 Gaussian mean around sample 2·i of the middle row.
  void (*reduceRow)(const FiveRows& rows, std::int16_t* out, std::int32_t count);

  /// Adds `count` samples to the sums. `previous` and `current` point to the first pair of samples.
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

/// The scalar loops, which define the results.
extern const KernelOps kScalarOps;

#if defined(__x86_64__)
/// Twins of the scalar loops for processors with AVX2.
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
