#pragma once

#include "kernel/loops.h"
#include "kernel/loops_avx2.h"

// What the two walkers along source lines share. A line's steps decide which of them takes it:
//
//   source samples advanced per column                 planes     frames, nearest   frames, bilinear
//   exactly 1, at whole samples of one row             copied     magnified         straight
//   15/16 to 1, and less than 1/4 of a row             straight   magnified         straight
//   0 to 1 (magnified, or turned further)              scalar     magnified         magnified
//   less than 0 (backwards), or more than 1            scalar     scalar            scalar
//
// The straight walker (loops_avx2_straight.cpp) cuts a line into pieces. The columns of a piece read
// consecutive samples of one source row, so plain loads serve them. Fractions have 32 bits; lines that need
// more go to the magnified walker (loops_avx2_magnified.cpp). That walker picks the samples of eight columns
// at a time.

namespace avx2 {

/// Warps a row with the straight walker. Returns false and does nothing if the line does not suit it.
bool WarpStraightRow(const std::uint8_t* frame, std::ptrdiff_t strideBytes, const SourceLine& line,
                     ColumnRun run, std::uint8_t* out);

}  // namespace avx2

namespace {

/// The source position of one column.
struct Position {
  std::int64_t x, y;

  Position(const SourceLine& line, std::int32_t column)
      : x(line.startX + column * line.stepX), y(line.startY + column * line.stepY) {}
};

/// The line with `bits` more fraction bits; fewer if negative.
inline SourceLine Scaled(const SourceLine& line, int bits) {
  const auto scaled = [bits](std::int64_t value) {
    return bits < 0 ? value >> -bits : value * (std::int64_t{1} << bits);
  };
  return {scaled(line.startX), scaled(line.startY), scaled(line.stepX), scaled(line.stepY),
          line.fractionBits + bits};
}

/// Prefetches the source four rows ahead. Rows of a turned picture are read in short pieces, which processors
/// do not predict. The address may lie outside the picture, because a prefetch is only a hint.
inline void PrefetchRowsAhead(const void* source, std::ptrdiff_t rowBytes) {
  constexpr int kRows = 4;
  const auto address =
      reinterpret_cast<std::uintptr_t>(source) + static_cast<std::uintptr_t>(kRows * rowBytes);
  const auto* const ahead =
      reinterpret_cast<const void*>(address);  // NOLINT(performance-no-int-to-ptr): hint
  _mm_prefetch(ahead, _MM_HINT_T0);
}

/// The weights of the near and the far neighbour, side by side in each 32-bit lane.
inline __m256i WeightPairs(__m256i far) {
  const __m256i near = _mm256_sub_epi32(_mm256_set1_epi32(kWeightOne), far);
  return _mm256_or_si256(near, _mm256_slli_epi32(far, 16));
}

/// The colours of eight pixels. Each 32-bit lane holds a pixel's value and its right neighbour's.
struct ColorPairs {
  __m256i blue, green, red;
};

/// Shuffles four pixels and their right neighbours out of the 16 bytes in each half. `blueOrder` tells where
/// their blue bytes stand; its odd bytes are negative, which clears those bytes and so widens values to 16
/// bits.
inline ColorPairs PickPairs(__m256i bytes, __m256i blueOrder) {
  const __m256i next = _mm256_set1_epi32(0x00010001);
  const __m256i greenOrder = _mm256_add_epi8(blueOrder, next), redOrder = _mm256_add_epi8(greenOrder, next);
  return {_mm256_shuffle_epi8(bytes, blueOrder), _mm256_shuffle_epi8(bytes, greenOrder),
          _mm256_shuffle_epi8(bytes, redOrder)};
}

/// Writes eight pixels. Each half holds four of them in its first 12 bytes.
inline void StorePixels(std::uint8_t* to, __m256i pixels) {
  const __m128i upper = _mm256_extracti128_si256(pixels, 1);
  Store16(to, _mm256_castsi256_si128(pixels));
  _mm_storel_epi64(reinterpret_cast<__m128i*>(to + 12), upper);
  _mm_storeu_si32(to + 20, _mm_srli_si128(upper, 8));
}

/// Eight bilinear pixels, in the layout of `StorePixels`. Always inlined, because a call would pass the
/// vectors through memory.
[[gnu::always_inline]] inline __m256i BilinearPixels(const ColorPairs& near, const ColorPairs& far,
                                                     __m256i weightsX, __m256i weightsY) {
  // Scaling the vertical weight by 64 puts the mean into the highest byte of its lane.
  constexpr int kScale = 6;
  const __m256i pairsX = WeightPairs(weightsX), scaledY = _mm256_slli_epi32(weightsY, kScale);
  const auto mean = [&](__m256i nearPairs, __m256i farPairs) {
    const __m256i lower = _mm256_madd_epi16(nearPairs, pairsX), upper = _mm256_madd_epi16(farPairs, pairsX);
    const __m256i change = _mm256_mullo_epi32(_mm256_sub_epi32(upper, lower), scaledY);
    return _mm256_add_epi32(change, _mm256_slli_epi32(lower, kWeightBits + kScale));
  };
  const auto place = [](__m256i means, __m128i order) {
    return _mm256_shuffle_epi8(means, _mm256_broadcastsi128_si256(order));
  };
  const __m256i blue = place(mean(near.blue, far.blue),
                             _mm_setr_epi8(3, -1, -1, 7, -1, -1, 11, -1, -1, 15, -1, -1, -1, -1, -1, -1));
  const __m256i green = place(mean(near.green, far.green),
                              _mm_setr_epi8(-1, 3, -1, -1, 7, -1, -1, 11, -1, -1, 15, -1, -1, -1, -1, -1));
  const __m256i red = place(mean(near.red, far.red),
                            _mm_setr_epi8(-1, -1, 3, -1, -1, 7, -1, -1, 11, -1, -1, 15, -1, -1, -1, -1));
  return _mm256_or_si256(_mm256_or_si256(blue, green), red);
}

}  // namespace
