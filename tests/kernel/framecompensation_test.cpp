#include "kernel/framecompensation.h"

#include <gtest/gtest.h>

#include "kernel/sampling.h"
#include "support/guardedbuffer.h"
#include "support/params.h"
#include "support/scene.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::array<std::uint8_t, 3> kBackground = {200, 100, 50};

KernelParams Params(std::int32_t width, std::int32_t height, ClippingOption clipping,
                    std::int32_t marginX = 0, std::int32_t marginY = 0) {
  KernelParams params = DefaultParams(width, height);
  params.backgroundColor = kBackground;
  params.clippingOption = static_cast<std::uint32_t>(clipping);
  params.cropMarginX = marginX;
  params.cropMarginY = marginY;
  return params;
}

/// The frame that `source` becomes in a buffer that was all 7 before.
Bytes Compensate(const KernelParams& params, const Bytes& source, const MotionRecord& correction) {
  const Compensation compensation({params.width, params.height}, params);
  GuardedBuffer output(Bytes(source.size(), 7));
  CompensateFrame(compensation, source.data(), correction, output.Data(), kScalarOps);
  EXPECT_TRUE(output.GuardsIntact());
  return output.Content();
}

TEST(FrameCompensation, SwitchesToTheNextPixelAt255) {
  const Bytes source = {1, 1, 1, 2, 2, 2, 0, 0, 3, 3, 3, 4, 4, 4, 0, 0};
  for (const auto& [fraction, x, y] : {std::array{254, 0, 0}, {255, 1, 1}, {256, 1, 1}}) {
    Bytes out(3);
    kScalarOps.warpRowNearest(source.data(), 8, {fraction, fraction, 512, 0, 9}, {0, 1}, out.data());
    EXPECT_EQ(out[0], 1 + x + 2 * y) << fraction;
  }
}

TEST(FrameCompensation, FormsTheMagnifiedShiftFromLeftToRight) {
  // 5 × (32 / 28) × 28 is a hair below 160 in 64-bit floating point and is cut to 159: 1/64 of a source
  // pixel.
  const FrameGeometry frame(96, 96);
  Bytes source(static_cast<std::size_t>(frame.SizeBytes()));
  for (std::size_t i = 0; i < source.size(); ++i) source[i] = i / 3 % 2 == 0 ? 0 : 255;
  const KernelParams params = Params(96, 96, ClippingOption::CropAndStretch, 6, 6);
  ASSERT_EQ(ComputeZoom(ClippingOption::CropAndStretch, 96, 96, 6, 6), 28);
  const Bytes output = Compensate(params, source, {5, 0, 0});
  for (std::int32_t column = 20; column < 70; ++column) {
    // In units of 1/64 pixel.
    const std::int32_t position = 2 * column * 28 - 95 * 28 + 32 * 96 - 2 * 159;
    const std::int32_t weight = position % 64 * 8, left = position / 64 % 2 == 0 ? 0 : 255;
    const std::int32_t top = left * 512 + (255 - 2 * left) * weight;
    EXPECT_EQ(output[static_cast<std::size_t>(frame.Offset(column, 48))], top * 512 >> 18) << column;
  }
}

TEST(FrameCompensation, ChoosesTheNearestTabulatedZoom) {
  const auto zoom = [](std::int32_t marginX, std::int32_t marginY) {
    return ComputeZoom(ClippingOption::CropAndStretch, 640, 480, marginX, marginY);
  };
  EXPECT_EQ(zoom(64, 48), 26);
  EXPECT_EQ(zoom(0, 0), 32);
  EXPECT_EQ(zoom(160, 0), 16);
  EXPECT_EQ(zoom(0, 239), 16) << "no magnification is near: the strongest";
  EXPECT_EQ(ComputeZoom(ClippingOption::Crop, 640, 480, 64, 48), 32);
  EXPECT_EQ(ComputeZoom(ClippingOption::CropAndStretch, 151, 151, 13, 0), 26)
      << "the stronger of two as near";
  // Needs that are nearest to one of the four-decimal values and not to its exact ratio.
  for (const auto& [width, margin, step] : {std::array{33, 8, 17},
                                            {1435, 303, 18},
                                            {592, 125, 19},
                                            {755, 124, 21},
                                            {323, 48, 22},
                                            {1113, 148, 23},
                                            {698, 71, 26},
                                            {667, 47, 28},
                                            {509, 12, 31}})
    EXPECT_EQ(ComputeZoom(ClippingOption::CropAndStretch, width, width, margin, 0), step)
        << width << " " << margin;
  // 1.04948 is nearer to 1.0323 than to 1.0667, though nearer to 32 / 30 than to 32 / 31.
  EXPECT_EQ(ComputeZoom(ClippingOption::CropAndStretch, 104948, 100, 2474, 0), 31);
}

TEST(FrameCompensation, PacksCroppedRowsAtTheirOwnPitch) {
  EXPECT_EQ(PackedCropPitch(100), 300);
  EXPECT_EQ(PackedCropPitch(101), 306);
  EXPECT_EQ(PackedCropPitch(102), 308);
  EXPECT_EQ(PackedCropPitch(103), 310);
  EXPECT_EQ(PackedCropPitch(1), 6);
}

TEST(FrameCompensation, CropsFromTheWarpedPictureAsItWasAndNeverPastTheFrame) {
  // Width 101 without side margins: the packed pitch of 306 exceeds the stride of 304 and rows overtake their
  // source.
  for (const auto& [width, height, marginX, marginY] : {std::array{101, 30, 0, 0},
                                                        {101, 30, 0, 3},
                                                        {101, 400, 0, 1},
                                                        {5, 7, 0, 0},
                                                        {45, 33, 2, 4},
                                                        {47, 12, 1, 0}}) {
    SCOPED_TRACE(::testing::Message() << width << "x" << height << " margins " << marginX << "," << marginY);
    const FrameGeometry frame(width, height);
    const Bytes source = RandomBytes(static_cast<std::size_t>(frame.SizeBytes()), 4);
    const MotionRecord correction = {1, -1, 3.0};
    // The stretched picture at no magnification is the warped picture.
    const Bytes warped =
        Compensate(Params(width, height, ClippingOption::CropAndStretch), source, correction);
    const Bytes cropped =
        Compensate(Params(width, height, ClippingOption::Crop, marginX, marginY), source, correction);

    const std::ptrdiff_t rowBytes = (width - 2 * marginX) * 3, pitch = PackedCropPitch(width - 2 * marginX);
    for (std::int32_t row = 0; row < height - 2 * marginY; ++row)
      for (std::ptrdiff_t i = 0; i < rowBytes && row * pitch + i < frame.SizeBytes(); ++i)
        ASSERT_EQ(cropped[static_cast<std::size_t>(row * pitch + i)],
                  warped[static_cast<std::size_t>(frame.Offset(marginX, row + marginY) + i)])
            << "row " << row << " byte " << i;
  }
}

TEST(UsableColumns, AreThoseWhoseFourNeighboursExist) {
  constexpr int kBits = 12;
  const auto steps = {-9000, -4096, -1, 0, 1, 700, 4096, 5000};
  for (const std::int64_t stepX : steps) {
    for (const std::int64_t stepY : steps) {
      for (const std::int64_t start : {-30000, -4096, -1, 0, 4095, 30000, 60000}) {
        const SourceLine line = {start, 50000 - start, stepX, stepY, kBits};
        const ColumnRun run = UsableColumns(line, 11, 13, {2, 40});
        for (std::int32_t column = 2; column < 40; ++column) {
          const std::int64_t x = (line.startX + column * stepX) >> kBits,
                             y = (line.startY + column * stepY) >> kBits;
          ASSERT_EQ(column >= run.begin && column < run.end, x >= 0 && x < 10 && y >= 0 && y < 12)
              << start << " " << stepX << " " << stepY << " at " << column;
        }
      }
    }
  }
}

}  // namespace
