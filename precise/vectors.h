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

constexpr hn::ScalableTag<std::int32_t> kInts;
constexpr hn::ScalableTag<std::uint32_t> kWords;
constexpr hn::ScalableTag<std::int16_t> kShorts;
constexpr hn::ScalableTag<std::uint16_t> kHalfWords;
constexpr hn::ScalableTag<std::uint8_t> kBytes;

using Ints = hn::Vec<decltype(kInts)>;
using Words = hn::Vec<decltype(kWords)>;
using Shorts = hn::Vec<decltype(kShorts)>;
using Bytes = hn::Vec<decltype(kBytes)>;

/// 32-bit lanes of a vector.
constexpr std::int32_t kLanes = hn::MaxLanes(kInts);
constexpr std::int32_t kLanesOfBlock = 4, kBlocks = kLanes / kLanesOfBlock;

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

}  // namespace
}  // namespace precise
