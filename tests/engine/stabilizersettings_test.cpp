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

TEST(OutputSize, ShrinksOnlyWhenMarginsAreCroppedAway) {
  StabilizerSettings settings;
  settings.LeftRightCropMargin = 10;
  settings.TopBottomCropMargin = 500;
  const auto size = [&] {
    const FrameSize output = GetOutputSize(settings, {640, 480});
    return std::tuple(output.width, output.height);
  };
  settings.ClippingOption = 1;
  EXPECT_EQ(size(), std::tuple(640, 480)) << "cropping is off";
  settings.CropEnabled = true;
  EXPECT_EQ(size(), std::tuple(620, 2));
  for (const std::int32_t other : {0, 2, 7, -1}) {
    settings.ClippingOption = other;
    EXPECT_EQ(size(), std::tuple(640, 480));
  }
}

TEST(KernelParamsFromSettings, ApplyRegionAndMarginsOnlyWhenEnabled) {
  StabilizerSettings settings;
  EXPECT_EQ(Edges(settings.ROI), std::tuple(0, 0, 10000, 10000));
  settings.ROI = {400, 10, 20, 100};
  settings.LeftRightCropMargin = 5000;
  settings.TopBottomCropMargin = 7;
  settings.BkFillColor = {1, 2, 3};
  settings.ClippingOption = -3;
  KernelParams params = MakeKernelParams(settings, {640, 480});
  EXPECT_EQ(Edges(params.roi), std::tuple(0, 0, 640, 480));
  EXPECT_EQ(params.cropMarginX, 0);
  EXPECT_EQ(params.cropMarginY, 0);
  EXPECT_EQ(params.clippingOption, 0xFFFFFFFDU);
  EXPECT_EQ(params.gaussianWeights, 0);
  EXPECT_EQ(params.windowLength, 32);
  EXPECT_EQ(params.estimationQuality, 2U);
  EXPECT_EQ(params.backgroundColor, (std::array<std::uint8_t, 3>{1, 2, 3}));

  settings.ROIEnabled = settings.CropEnabled = true;
  params = MakeKernelParams(settings, {640, 480});
  EXPECT_EQ(Edges(params.roi), std::tuple(20, 10, 400, 100));
  EXPECT_EQ(params.cropMarginX, 319);
  EXPECT_EQ(params.cropMarginY, 7);
}

}  // namespace
