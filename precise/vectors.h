#pragma once

// What the vector loops share. The same source compiles for AVX2 and for NEON. Processors with AVX2 may lack
// the instructions that are disabled here. The namespace is anonymous, so each file that includes this has a
// copy compiled for its own instruction set.
#define HWY_COMPILE_ONLY_STATIC
#define HWY_DISABLE_BMI2_FMA
#define HWY_DISABLE_F16C
#define HWY_DISABLE_PCLMUL_AES
#include <hwy/highway.h>

#include "precise/fixedpoint.h"

namespace precise {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

// Whole vectors, and the tags that tell Highway their lanes.
inline constexpr hn::ScalableTag<std::int32_t> kInt32s;
inline constexpr hn::ScalableTag<std::uint32_t> kUint32s;
inline constexpr hn::ScalableTag<std::int16_t> kInt16s;
inline constexpr hn::ScalableTag<std::uint16_t> kUint16s;
inline constexpr hn::ScalableTag<std::uint8_t> kBytes;

using Int32s = hn::Vec<decltype(kInt32s)>;
using Uint32s = hn::Vec<decltype(kUint32s)>;
using Int16s = hn::Vec<decltype(kInt16s)>;
using Uint16s = hn::Vec<decltype(kUint16s)>;
using Bytes = hn::Vec<decltype(kBytes)>;

/// 32-bit lanes of a vector, and of each of its blocks of 128 bits. Shuffles work within a block.
inline constexpr std::int32_t kLanes = hn::MaxLanes(kInt32s);
inline constexpr std::int32_t kLanesOfBlock = 4, kBlocks = kLanes / kLanesOfBlock;

/// As `hn::Set`, of a constant that is hidden from the compiler by a volatile read. GCC rebuilds a constant
/// that it knows in each step of a loop, by two instructions on the port that all shuffles need.
template <class Tag>
hn::Vec<Tag> OpaqueSet(Tag tag, hn::TFromD<Tag> value) {
  const volatile auto hidden = value;
  return hn::Set(tag, hidden);
}

/// Loads a block of 16 bytes from each address. A vector of one block takes the first alone.
template <class Tag, class Lane>
hn::Vec<Tag> LoadBlocks(Tag tag, const Lane* first, const Lane* second) {
  constexpr hn::FixedTag<Lane, 16 / sizeof(Lane)> kBlock;
  if constexpr (hn::MaxLanes(tag) == hn::MaxLanes(kBlock))
    return hn::LoadU(tag, first);
  else
    return hn::Combine(tag, hn::LoadU(kBlock, second), hn::LoadU(kBlock, first));
}

/// Lane i is a[2·i]·b[2·i] + a[2·i + 1]·b[2·i + 1].
inline Int32s SumsOfPairs(Int16s a, Int16s b) {
  Int32s odd = hn::Zero(kInt32s);
  const Int32s even = hn::ReorderWidenMulAccumulate(kInt32s, a, b, hn::Zero(kInt32s), odd);
  return hn::RearrangeToOddPlusEven(even, odd);
}

/// Weights in 1/16384 of four neighbouring samples, for as many outputs as there are lanes.
struct Weights {
  Int16s first, second, third, fourth;
};

/// The weights of the bicubic warp, by the formula in cubicweights.h. Phases t are 0 … 255.
class SharpWeights {
 public:
  Weights At(Int16s t) const {
    const Int16s p = hn::Mul(t, hn::Sub(m_one, t)), q = hn::Add(p, hn::MulFixedPoint15(p, p));
    const Int16s t16 = hn::ShiftLeft<4>(t), t64 = hn::ShiftLeft<6>(t);
    const Int16s first = hn::Neg(hn::MulFixedPoint15(q, hn::Sub(m_one16, t16)));
    const Int16s fourth = hn::Neg(hn::MulFixedPoint15(q, t16));
    const Int16s third = hn::Add(t64, hn::MulFixedPoint15(q, hn::Sub(hn::Sub(t64, t16), m_one16)));
    return {first, hn::Sub(hn::Sub(m_whole, first), hn::Add(third, fourth)), third, fourth};
  }

 private:
  Int16s m_one = OpaqueSet(kInt16s, 256), m_one16 = OpaqueSet(kInt16s, 256 * 16),
         m_whole = OpaqueSet(kInt16s, 1 << kWeightBits);
};

/// The cubic B-spline's weights (1 - t)³ / 6, (1 + 3·t·(1 + t) - 3·t³) / 6 and t³ / 6 of the first, third and
/// fourth sample, for phases of 0 … 255; the second gets the rest. In 1/8192 a numerator is three times its
/// weight in 1/16384. It is made with 3/2 added, so a third of it, rounded down, is the weight rounded to the
/// nearest.
class SplineWeights {
 public:
  Weights At(Int16s phases) const {
    const Uint16s t = hn::BitCast(kUint16s, phases);
    const Uint16s square = hn::Mul(t, t), t64 = hn::ShiftLeft<6>(t), t96 = hn::Add(t64, hn::ShiftLeft<5>(t));
    const Int16s first = Third(hn::Add(hn::Sub(m_one, t96), Cubic(square, hn::Sub(m_three, t64))));
    const Int16s third =
        Third(hn::Add(hn::Add(m_one, t96), Cubic(square, hn::Sub(m_three, hn::Add(t96, t96)))));
    const Int16s fourth = Third(Cubic(square, t64));
    return {first, hn::Sub(hn::Sub(m_whole, first), hn::Add(third, fourth)), third, fourth};
  }

 private:
  /// square · factor in 1/8192 with 3/2 added, rounded down. The square is in 2^-16, the factor in 2^-14.
  Uint16s Cubic(Uint16s square, Uint16s factor) const {
    return hn::ShiftRight<1>(hn::Add(hn::MulHigh(square, factor), m_rounding));
  }

  Int16s Third(Uint16s triple) const {
    return hn::BitCast(kInt16s, hn::ShiftRight<1>(hn::MulHigh(triple, m_twoThirds)));
  }

  Uint16s m_rounding = OpaqueSet(kUint16s, 3);
  Uint16s m_one = OpaqueSet(kUint16s, 8192);         // in 1/8192
  Uint16s m_three = OpaqueSet(kUint16s, 3 << 14);    // in 2^-14
  Uint16s m_twoThirds = OpaqueSet(kUint16s, 43691);  // in 2^-16
  Int16s m_whole = OpaqueSet(kInt16s, 1 << kWeightBits);
};

}  // namespace
}  // namespace precise
