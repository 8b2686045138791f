#include "engine/stabilizersettings.h"

#include <gtest/gtest.h>
#include <limits>
#include <tuple>

namespace {

constexpr std::int32_t kMin = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kMax = std::numeric_limits<std::int32_t>::max();

auto Edges(const Rect& rect) { return std::tuple(rect.left, rect.top, rect.right, rect.bottom); }

TEST(NormalizeRoi, OrdersWidensAndClips) {
  const auto normalized = [](Rect roi, FrameSize frame = {320, 240}) {
    return Edges(NormalizeRoi(roi, frame));
  };
  EXPECT_EQ(normalized({50, 40, 10, 40}), std::tuple(10, 39, 50, 40));
  EXPECT_EQ(normalized({-5, -6, -7, -8}), std::tuple(0, 0, 1, 1));
  EXPECT_EQ(normalized({1, 0, 1, 2}), std::tuple(0, 0, 1, 2));
  EXPECT_EQ(normalized({0, 0, 10000, 10000}), std::tuple(0, 0, 320, 240));
  EXPECT_EQ(normalized({300, 200, 400, 300}), std::tuple(300, 200, 320, 240));
  EXPECT_EQ(normalized({320, 0, 400, 240}), std::tuple(0, 0, 0, 0)) << "outside";
  EXPECT_EQ(normalized({320, 10, 320, 20}), std::tuple(319, 10, 320, 20)) << "widened toward the frame";
  EXPECT_EQ(normalized({kMin, kMin, kMax, kMax}), std::tuple(0, 0, 320, 240));
  EXPECT_EQ(normalized({kMax, kMax, kMax, kMax}), std::tuple(0, 0, 0, 0));
  EXPECT_EQ(normalized({0, 0, 10, 10}, {0, -4}), std::tuple(0, 0, 0, 0));
}

TEST(ClampCropMargins, LeavesAtLeastAPixelOfPicture) {
  const auto clamped = [](CropMargins margins, FrameSize frame) {
    const CropMargins result = ClampCropMargins(margins, frame);
    return std::tuple(result.leftRight, result.topBottom);
  };
  EXPECT_EQ(clamped({500, 10}, {640, 480}), std::tuple(319, 10));
  EXPECT_EQ(clamped({319, 240}, {640, 480}), std::tuple(319, 239));
  EXPECT_EQ(clamped({-1, kMin}, {640, 480}), std::tuple(0, 0));
  EXPECT_EQ(clamped({5, kMax}, {1, 1}), std::tuple(0, 0));
  EXPECT_EQ(clamped({5, 5}, {-10, 0}), std::tuple(0, 0));
}

TEST(Settings, ApplyRegionAndMarginsOnlyWhenEnabled) {
  StabilizerSettings settings;
  settings.ROI = {400, 10, 20, 100};
  settings.LeftRightCropMargin = 5000;
  settings.TopBottomCropMargin = 7;
  for (const std::int32_t clipping : {-3, 0, 1, 2}) {
    settings.ClippingOption = clipping;
    for (const bool isOn : {false, true}) {
      settings.ROIEnabled = settings.CropEnabled = isOn;
      const KernelParams params = MakeKernelParams(settings, {640, 480});
      EXPECT_EQ(Edges(params.roi), isOn ? std::tuple(20, 10, 400, 100) : std::tuple(0, 0, 640, 480));
      EXPECT_EQ(std::tuple(params.cropMarginX, params.cropMarginY),
                isOn ? std::tuple(319, 7) : std::tuple(0, 0));
      EXPECT_EQ(params.clippingOption, static_cast<std::uint32_t>(clipping));
      const FrameSize output = GetOutputSize(settings, {640, 480});
      EXPECT_EQ(std::tuple(output.width, output.height),
                isOn && clipping == 1 ? std::tuple(2, 466) : std::tuple(640, 480));
    }
  }
}

}  // namespace
