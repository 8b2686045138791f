#include "precise/similarity.h"

#include <cmath>
#include <gtest/gtest.h>

#include "support/planarscene.h"

namespace precise {
namespace {

TEST(Similarity, AngleIsTheArcTangent) {
  for (int i = -720; i <= 720; ++i) {
    const double radians = i * 0.00436;
    for (const double length : {1e-9, 1.0, 3e5}) {
      const Complex direction = {length * std::cos(radians), length * std::sin(radians)};
      EXPECT_NEAR(Angle(direction), std::atan2(direction.im, direction.re), 1e-15) << radians;
    }
  }
  for (const Complex axis : {Complex{0, 0}, {2, 0}, {0, 2}, {-2, 0}, {0, -2}, {3, 3}, {-3, -3}})
    EXPECT_NEAR(Angle(axis), std::atan2(axis.im, axis.re), 1e-15);
}

TEST(Similarity, HalfTwiceAndInverseUndo) {
  for (const Similarity& map : {MakePose(3, -4, 0), MakePose(0, 0, 90), MakePose(-20, 7, -12, 1.3)}) {
    const Similarity half = Half(map), twice = Compose(half, half), undone = Compose(Inverse(map), map);
    EXPECT_LT(Length(twice.turn - map.turn) + Length(twice.shift - map.shift), 1e-13);
    EXPECT_LT(Length(undone.turn - Complex{1, 0}) + Length(undone.shift), 1e-13);
  }
}

}  // namespace
}  // namespace precise
