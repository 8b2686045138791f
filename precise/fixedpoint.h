#pragma once

#include <cstdint>

// How the loops count. Each file of loops has a copy of its own, compiled for its processors.

namespace precise {
namespace {

// Weights of the splines count 16384. The first pass of a separable mean keeps four more bits than planes
// have.
inline constexpr int kWeightBits = 14;
inline constexpr int kFirstPassBits = kWeightBits - 4, kSecondPassBits = kWeightBits + 4;
inline constexpr std::int32_t kHalfOfFirstPass = 1 << (kFirstPassBits - 1),
                              kHalfOfSecondPass = 1 << (kSecondPassBits - 1);

inline constexpr int kBrightnessBits = 10;

/// Weights are made for 256 phases, the positions between a sample and the next.
inline constexpr int kPhaseBits = 8;

/// The cubic B-spline at a sample: of the sample, and of its neighbours.
inline constexpr std::int32_t kSplineMiddle = 10922, kSplineSide = 2731;

constexpr std::int32_t LargestSample(int bits) { return (1 << bits) - 1; }

/// The first pass of a bicubic warp keeps 14 bits, or all that samples have where these are more.
constexpr int FirstPassBits(int bits) { return bits < kWeightBits ? bits : kWeightBits; }

}  // namespace
}  // namespace precise
