#include "kernel/sinecosine.h"

#include <cmath>
#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <random>

namespace {

TEST(SineCosine, KeepsItsStatedErrorOverTheReducibleRange) {
  constexpr long double kUnit = 0x1p-52L;
  std::mt19937_64 random(5);
  for (int i = 0; i < 200000; ++i) {
    const double scale = std::ldexp(1.0, static_cast<int>(random() % 51) - 30);
    const double angle = (static_cast<double>(random() >> 11) * 0x1p-53 * 2 - 1) * scale;
    const SineCosine computed = ComputeSineCosine(angle);
    ASSERT_LE(std::abs(computed.sine - std::sin(static_cast<long double>(angle))), kUnit) << angle;
    ASSERT_LE(std::abs(computed.cosine - std::cos(static_cast<long double>(angle))), kUnit) << angle;
  }
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
