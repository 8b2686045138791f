#include "kernel/frame.h"
#include "kernel/loops.h"
#include "kernel/loops_avx2.h"

// If a row's length is not a multiple of the step, the last step ends with the row and makes some samples
// again. Rows shorter than a step go to the scalar loops.

namespace {

/// For four pixels in each half: blue + green, and 2·red. `order` shuffles their bytes to four per pixel.
__m256i GreyPairs(__m256i pixels, __m256i order) {
  const __m256i weights = _mm256_set1_epi32(0x00020101);
  return _mm256_maddubs_epi16(_mm256_shuffle_epi8(pixels, order), weights);
}

__m256i Madd(__m256i samples, int even, int odd) {
  return _mm256_madd_epi16(samples, _mm256_set1_epi32(odd * 65536 + even));
}

/// Eight outputs. Each adds the weighted sample pairs (-2, -1), (0, 1) and (1, 2) of five rows. Sample 1 is
/// in two pairs; in the pair (0, 1) it has no weight.
__m256i ReduceEight(const FiveRows& rows, std::ptrdiff_t at) {
  const auto sumOf = [&](std::size_t a, std::size_t b, std::ptrdiff_t offset) {
    return _mm256_add_epi16(Load32(rows[a] + at + offset), Load32(rows[b] + at + offset));
  };
  __m256i sum = Madd(Load32(rows[2] + at - 2), 20, 102);
  sum = _mm256_add_epi32(sum, Madd(Load32(rows[2] + at), 164, 0));
  sum = _mm256_add_epi32(sum, Madd(Load32(rows[2] + at + 1), 102, 20));
  sum = _mm256_add_epi32(sum, Madd(sumOf(1, 3, -2), 13, 64));
  sum = _mm256_add_epi32(sum, Madd(sumOf(1, 3, 0), 102, 0));
  sum = _mm256_add_epi32(sum, Madd(sumOf(1, 3, 1), 64, 13));
  sum = _mm256_add_epi32(sum, Madd(sumOf(0, 4, -2), 3, 13));
  sum = _mm256_add_epi32(sum, Madd(sumOf(0, 4, 0), 20, 0));
  sum = _mm256_add_epi32(sum, Madd(sumOf(0, 4, 1), 13, 3));
  return _mm256_srai_epi32(sum, 10);
}

std::int64_t Total(__m256i sums) {
  const __m256i wide = _mm256_add_epi64(_mm256_cvtepi32_epi64(_mm256_castsi256_si128(sums)),
                                        _mm256_cvtepi32_epi64(_mm256_extracti128_si256(sums, 1)));
  const __m128i pair = _mm_add_epi64(_mm256_castsi256_si128(wide), _mm256_extracti128_si256(wide, 1));
  return _mm_cvtsi128_si64(pair) + _mm_extract_epi64(pair, 1);
}

void AddProducts(__m256i& sums, __m256i a, __m256i b) {
  sums = _mm256_add_epi32(sums, _mm256_madd_epi16(a, b));
}

/// A mask: all bits are 1 in the last `count` of 16 lanes, and 0 in the others.
__m256i LastLanes(std::int32_t count) {
  static constexpr std::int16_t kMasks[32] = {0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,
                                              -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1};
  return Load32(kMasks + count);
}

struct Gradients {
  __m256i x, y, t;

  void Keep(__m256i lanes) {
    x = _mm256_and_si256(x, lanes);
    y = _mm256_and_si256(y, lanes);
  }
};

Gradients GradientsAt(const std::int16_t* previous, const ThreeRows& current, std::int32_t i) {
  return {_mm256_sub_epi16(Load32(current[1] + i - 1), Load32(current[1] + i + 1)),
          _mm256_sub_epi16(Load32(current[0] + i), Load32(current[2] + i)),
          _mm256_sub_epi16(Load32(previous + i), Load32(current[1] + i))};
}

struct RotationGradients {
  Gradients shift;
  __m256i r;

  void Keep(__m256i lanes) {
    shift.Keep(lanes);
    r = _mm256_and_si256(r, lanes);
  }
};

struct TranslationLanes {
  __m256i xx, xy, yy, xt, yt;

  void Add(const Gradients& g) {
    AddProducts(xx, g.x, g.x);
    AddProducts(xy, g.x, g.y);
    AddProducts(yy, g.y, g.y);
    AddProducts(xt, g.x, g.t);
    AddProducts(yt, g.y, g.t);
  }

  void AddTo(TranslationSums& sums) const {
    sums.xx += Total(xx);
    sums.xy += Total(xy);
    sums.yy += Total(yy);
    sums.xt += Total(xt);
    sums.yt += Total(yt);
  }
};

struct RotationLanes {
  TranslationLanes shift;
  __m256i rr, rx, ry, rt;

  void Add(const RotationGradients& g) {
    shift.Add(g.shift);
    AddProducts(rr, g.r, g.r);
    AddProducts(rx, g.r, g.shift.x);
    AddProducts(ry, g.r, g.shift.y);
    AddProducts(rt, g.r, g.shift.t);
  }

  void AddTo(RotationSums& sums) const {
    sums.rr += Total(rr);
    sums.rx += Total(rx);
    sums.ry += Total(ry);
    sums.xx += Total(shift.xx);
    sums.xy += Total(shift.xy);
    sums.yy += Total(shift.yy);
    sums.rt += Total(rt);
    sums.xt += Total(shift.xt);
    sums.yt += Total(shift.yt);
  }
};

constexpr std::int32_t kSumStep = 16;
// A 32-bit lane holds the sum of 2064 products of two differences. Each step adds two products.
constexpr std::int32_t kMaxSumCount = 2064 / 2 * kSumStep;
static_assert(std::int64_t{1020} * 1020 * 2064 < std::int64_t{1} << 31);

/// Adds the products of gradients over `count` samples. `gradientsAt(i)` gives those of samples i … i + 15.
template <class Lanes, class GradientSource, class Sums>
void SumRow(std::int32_t count, Sums& sums, const GradientSource& gradientsAt) {
  for (std::int32_t begin = 0; begin < count; begin += kMaxSumCount) {
    const std::int32_t end = count - begin < kMaxSumCount ? count : begin + kMaxSumCount;
    Lanes lanes = {};
    std::int32_t i = begin;
    for (; i + kSumStep <= end; i += kSumStep) lanes.Add(gradientsAt(i));
    if (i < end) {
      auto rest = gradientsAt(end - kSumStep);
      rest.Keep(LastLanes(end - i));
      lanes.Add(rest);
    }
    lanes.AddTo(sums);
  }
}

}  // namespace

namespace avx2 {

void CopyBytes(const std::uint8_t* from, std::uint8_t* to, std::ptrdiff_t count) {
  constexpr std::ptrdiff_t kLine = 64;
  if (count < 2 * kLine) return kScalarOps.copyBytes(from, to, count);
  // Stores that bypass the cache need aligned addresses, so the unaligned ends are copied as usual.
  const std::ptrdiff_t head =
      kLine - static_cast<std::ptrdiff_t>(reinterpret_cast<std::uintptr_t>(to) % kLine);
  const std::ptrdiff_t tail = (count - head) % kLine;
  kScalarOps.copyBytes(from, to, head);
  for (std::ptrdiff_t i = head; i < count - tail; i += kLine) {
    const __m256i low = Load32(from + i), high = Load32(from + i + 32);
    _mm256_stream_si256(reinterpret_cast<__m256i*>(to + i), low);
    _mm256_stream_si256(reinterpret_cast<__m256i*>(to + i + 32), high);
  }
  kScalarOps.copyBytes(from + count - tail, to + count - tail, tail);
  _mm_sfence();
}

void GreyRow(const std::uint8_t* pixels, std::int16_t* grey, std::int32_t count) {
  constexpr std::int32_t kStep = 16;
  if (count < kStep) return kScalarOps.greyRow(pixels, grey, count);
  const __m128i order = _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1);
  // The last load must end with the last pixel, so its pixels begin 4 bytes later in it.
  const __m128i late = _mm_setr_epi8(4, 5, 6, -1, 7, 8, 9, -1, 10, 11, 12, -1, 13, 14, 15, -1);
  const __m256i order0 = _mm256_broadcastsi128_si256(order), order1 = _mm256_setr_m128i(order, late);
  for (std::int32_t begin = 0; begin < count; begin += kStep) {
    const std::int32_t i = begin + kStep <= count ? begin : count - kStep;
    const std::uint8_t* const from = pixels + std::ptrdiff_t{i} * kBytesPerPixel;
    const __m256i even = GreyPairs(LoadHalves(from, from + 24), order0);
    const __m256i odd = GreyPairs(LoadHalves(from + 12, from + 32), order1);
    Store32(grey + i, _mm256_hadd_epi16(even, odd));
  }
}

void ReduceRow(const FiveRows& rows, std::int16_t* out, std::int32_t count) {
  constexpr std::int32_t kStep = 16;
  if (count < kStep) return kScalarOps.reduceRow(rows, out, count);
  for (std::int32_t begin = 0; begin < count; begin += kStep) {
    const std::int32_t i = begin + kStep <= count ? begin : count - kStep;
    const __m256i both = _mm256_packs_epi32(ReduceEight(rows, 2 * std::ptrdiff_t{i}),
                                            ReduceEight(rows, 2 * std::ptrdiff_t{i} + 16));
    Store32(out + i, _mm256_permute4x64_epi64(both, 0xD8));
  }
}

void AddTranslationRow(const std::int16_t* previous, const ThreeRows& current, std::int32_t count,
                       TranslationSums& sums) {
  if (count < kSumStep) return kScalarOps.addTranslationRow(previous, current, count, sums);
  SumRow<TranslationLanes>(count, sums, [&](std::int32_t i) { return GradientsAt(previous, current, i); });
}

void AddRotationRow(const std::int16_t* previous, const RotatedRow& current, std::int32_t count,
                    RotationSums& sums) {
  if (count < kSumStep) return kScalarOps.addRotationRow(previous, current, count, sums);
  SumRow<RotationLanes>(count, sums, [&](std::int32_t i) {
    return RotationGradients{
        GradientsAt(previous, current.samples, i),
        _mm256_sub_epi16(Load32(current.turnedLess + i), Load32(current.turnedMore + i))};
  });
}

}  // namespace avx2
