#pragma once

// What the vector loops share. One source makes AVX2 and NEON; instructions that come with AVX2 on most
// processors are not asked for. Each file that includes this has a copy of its own, compiled for its
// processors.
#define HWY_COMPILE_ONLY_STATIC
#define HWY_DISABLE_BMI2_FMA
#define HWY_DISABLE_F16C
#define HWY_DISABLE_PCLMUL_AES
#include <hwy/highway.h>

#include "precise/fixedpoint.h"

namespace precise {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

inline constexpr hn::ScalableTag<std::int32_t> kInts;
inline constexpr hn::ScalableTag<std::uint32_t> kWords;
inline constexpr hn::ScalableTag<std::int16_t> kShorts;
inline constexpr hn::ScalableTag<std::uint16_t> kHalfWords;
inline constexpr hn::ScalableTag<std::uint8_t> kBytes;

using Ints = hn::Vec<decltype(kInts)>;
using Words = hn::Vec<decltype(kWords)>;
using Shorts = hn::Vec<decltype(kShorts)>;
using Bytes = hn::Vec<decltype(kBytes)>;

/// 32-bit lanes of a vector.
inline constexpr std::int32_t kLanes = hn::MaxLanes(kInts);
inline constexpr std::int32_t kLanesOfBlock = 4, kBlocks = kLanes / kLanesOfBlock;

/// A vector that is kept. A constant that the compiler knows it makes anew in each step, by two instructions
/// that wait for the same unit as all shuffles; so it is told by way of memory.
template <class Tag>
hn::Vec<Tag> Kept(Tag tag, hn::TFromD<Tag> value) {
  const volatile auto hidden = value;
  return hn::Set(tag, hidden);
}

/// A vector of 16 bytes from each place, or from the first where a vector has no more.
template <class Tag, class Lane>
hn::Vec<Tag> LoadBlocks(Tag tag, const Lane* first, const Lane* second) {
  constexpr hn::FixedTag<Lane, 16 / sizeof(Lane)> kBlock;
  if constexpr (hn::MaxLanes(tag) == hn::MaxLanes(kBlock))
    return hn::LoadU(tag, first);
  else
    return hn::Combine(tag, hn::LoadU(kBlock, second), hn::LoadU(kBlock, first));
}

/// Sums of products of neighbours.
inline Ints SumsOfPairs(Shorts a, Shorts b) {
  Ints odd = hn::Zero(kInts);
  const Ints even = hn::ReorderWidenMulAccumulate(kInts, a, b, hn::Zero(kInts), odd);
  return hn::RearrangeToOddPlusEven(even, odd);
}

/// Weights of four neighbours.
struct Weights {
  Shorts first, second, third, fourth;
};

/// The weights of the bicubic warp, by the formula that defines them.
class SharpWeights {
 public:
  Weights At(Shorts t) const {
    const Shorts p = hn::Mul(t, hn::Sub(m_one, t)), q = hn::Add(p, hn::MulFixedPoint15(p, p));
    const Shorts t16 = hn::ShiftLeft<4>(t), t64 = hn::ShiftLeft<6>(t);
    const Shorts first = hn::Neg(hn::MulFixedPoint15(q, hn::Sub(m_one16, t16)));
    const Shorts fourth = hn::Neg(hn::MulFixedPoint15(q, t16));
    const Shorts third = hn::Add(t64, hn::MulFixedPoint15(q, hn::Sub(hn::Sub(t64, t16), m_one16)));
    return {first, hn::Sub(hn::Sub(m_whole, first), hn::Add(third, fourth)), third, fourth};
  }

 private:
  Shorts m_one = Kept(kShorts, 256), m_one16 = Kept(kShorts, 256 * 16),
         m_whole = Kept(kShorts, 1 << kWeightBits);
};

/// The cubic B-spline's weights (1 - t)³ / 6, (1 + 3·t·(1 + t) - 3·t³) / 6 and t³ / 6. Three times each is
/// made in 1/8192 with 3/2 added, so that a third of it, rounded down, is the weight in 1/16384 rounded to
/// the nearest.
class SplineWeights {
 public:
  Weights At(Shorts phases) const {
    const HalfWords t = hn::BitCast(kHalfWords, phases);
    const HalfWords square = hn::Mul(t, t), t64 = hn::ShiftLeft<6>(t),
                    t96 = hn::Add(t64, hn::ShiftLeft<5>(t));
    const Shorts first = Third(hn::Add(hn::Sub(m_8192, t96), Cubic(square, hn::Sub(m_768, t64))));
    const Shorts third =
        Third(hn::Add(hn::Add(m_8192, t96), Cubic(square, hn::Sub(m_768, hn::Add(t96, t96)))));
    const Shorts fourth = Third(Cubic(square, t64));
    return {first, hn::Sub(hn::Sub(m_whole, first), hn::Add(third, fourth)), third, fourth};
  }

 private:
  using HalfWords = hn::Vec<decltype(kHalfWords)>;

  /// square · factor / 2^17 + 3/2, rounded down.
  HalfWords Cubic(HalfWords square, HalfWords factor) const {
    return hn::ShiftRight<1>(hn::Add(hn::MulHigh(square, factor), m_3));
  }

  Shorts Third(HalfWords triple) const {
    return hn::BitCast(kShorts, hn::ShiftRight<1>(hn::MulHigh(triple, m_twoThirds)));
  }

  HalfWords m_3 = Kept(kHalfWords, 3), m_8192 = Kept(kHalfWords, 8192);
  HalfWords m_768 = Kept(kHalfWords, 64 * 768);     // three times 256, as factors count 64
  HalfWords m_twoThirds = Kept(kHalfWords, 43691);  // of 2^16
  Shorts m_whole = Kept(kShorts, 1 << kWeightBits);
};

}  // namespace
}  // namespace precise
