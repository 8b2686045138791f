#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "precise/fixedpoint.h"

namespace precise {
namespace {

inline constexpr std::size_t kPhases = 1 << kPhaseBits;

/// a·b where a, b and the result are in 1/32768, rounded to the nearest.
constexpr std::int32_t MultiplyFractions(std::int32_t a, std::int32_t b) { return (a * b + (1 << 14)) >> 15; }

using CubicWeights = std::array<std::int16_t, 4>;

/// Weights in 1/16384 of four neighbouring samples at each phase t, a position between the second and the
/// third:
/// -(1 - t)·q, 1 - t + (2 - 3·t)·q, t + (3·t - 1)·q and -t·q.
///
/// For any q they reproduce constants and linear ramps, so they do not shift the picture. Let p = t·(1 - t).
/// With q = p / 2 they are those of Keys, "Cubic convolution interpolation for digital image processing"
/// (1981), for a = -1/2, which blur between samples. These use q = p / 2 + p², which is sharper there.
constexpr std::array<CubicWeights, kPhases> MakeCubicWeights() {
  std::array<CubicWeights, kPhases> all = {};
  constexpr auto kOne = static_cast<std::int32_t>(kPhases);
  for (std::int32_t t = 0; t < kOne; ++t) {
    const std::int32_t p = t * (kOne - t), q = p + MultiplyFractions(p, p);  // p in 2^-16, q in 2^-17
    const auto share = [q](std::int32_t phases) { return MultiplyFractions(q, phases << 4); };
    const std::int32_t first = -share(kOne - t), fourth = -share(t);
    const std::int32_t third = (t << (kWeightBits - kPhaseBits)) + share(3 * t - kOne);
    const std::int32_t second = (1 << kWeightBits) - first - third - fourth;
    all[static_cast<std::size_t>(t)] = {static_cast<std::int16_t>(first), static_cast<std::int16_t>(second),
                                        static_cast<std::int16_t>(third), static_cast<std::int16_t>(fourth)};
  }
  return all;
}

inline constexpr std::array<CubicWeights, kPhases> kCubicWeights = MakeCubicWeights();

}  // namespace
}  // namespace precise
