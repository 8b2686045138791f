#pragma once

#include <cstdint>

// Fixed-point formats of the loops. The namespace is anonymous, so each file of loops has a copy compiled for
// its own instruction set.

namespace precise {
namespace {

// Filter weights are in 1/16384. The first pass of a separable filter over brightness keeps four fraction
// bits: it drops ten bits of its sums, and the second pass drops the other eighteen.
inline constexpr int kWeightBits = 14;
inline constexpr int kFirstPassShift = kWeightBits - 4, kSecondPassShift = kWeightBits + 4;
inline constexpr std::int32_t kHalfOfFirstPass = 1 << (kFirstPassShift - 1),
                              kHalfOfSecondPass = 1 << (kSecondPassShift - 1);

/// Brightness is 0 … 1024, in quarters of an 8-bit step: white of 8 bits is 255 · 4.
inline constexpr int kBrightnessBits = 10;

/// A phase is a position between two samples, in 1/256 of their distance.
inline constexpr int kPhaseBits = 8;

/// The cubic B-spline at a sample: the weight of the sample, 2/3, and of each neighbour, 1/6.
inline constexpr std::int32_t kSplineMiddle = 10922, kSplineSide = 2731;

constexpr std::int32_t LargestSample(int bits) { return (1 << bits) - 1; }

/// How many bits of its sums the first pass of a bicubic warp drops: its results have 14 bits, or as many as
/// the samples where these have more.
constexpr int FirstPassShift(int bits) { return bits < kWeightBits ? bits : kWeightBits; }

}  // namespace
}  // namespace precise
