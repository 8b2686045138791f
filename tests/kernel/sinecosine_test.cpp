#include "kernel/sinecosine.h"

#include <bit>
#include <cmath>
#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <random>

namespace {

/// Angles of every magnitude up to 2^20.
double RandomAngle(std::mt19937_64& random) {
  const double scale = std::ldexp(1.0, static_cast<int>(random() % 51) - 30);
  return (static_cast<double>(random() >> 11) * 0x1p-53 * 2 - 1) * scale;
}

// Only where the platform's own functions can serve as the measure.
#ifndef _WIN32
TEST(SineCosine, KeepsItsStatedErrorOverTheReducibleRange) {
  constexpr long double kUnit = 0x1p-52L;
  std::mt19937_64 random(5);
  for (int i = 0; i < 200000; ++i) {
    const double angle = RandomAngle(random);
    const SineCosine computed = ComputeSineCosine(angle);
    ASSERT_LE(std::abs(computed.sine - std::sin(static_cast<long double>(angle))), kUnit) << angle;
    ASSERT_LE(std::abs(computed.cosine - std::cos(static_cast<long double>(angle))), kUnit) << angle;
  }
}

#endif

TEST(SineCosine, HasTheSameBitsOnEveryMachine) {
  std::mt19937_64 random(6);
  std::uint64_t digest = 0;
  for (int i = 0; i < 100000; ++i) {
    const SineCosine computed = ComputeSineCosine(RandomAngle(random));
    for (const double value : {computed.sine, computed.cosine})
      digest = digest * 0x100000001B3U + std::bit_cast<std::uint64_t>(value);
  }
  EXPECT_EQ(digest, 16497806480308030784U);
}

TEST(SineCosine, StaysOnTheCircleForAnglesWithoutMeaning) {
  for (const double angle : {1e9, -1e18, 1e300, -std::numeric_limits<double>::max()}) {
    const SineCosine computed = ComputeSineCosine(angle);
    EXPECT_NEAR(computed.sine * computed.sine + computed.cosine * computed.cosine, 1.0, 1e-15) << angle;
  }
  for (const double angle :
       {std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity(),
        std::numeric_limits<double>::quiet_NaN()}) {
    const SineCosine computed = ComputeSineCosine(angle);
    EXPECT_EQ(computed.sine, 0.0);
    EXPECT_EQ(computed.cosine, 1.0);
  }
}

}  // namespace
