#include "kernel/framecompensation.h"

#include <gtest/gtest.h>

#include "kernel/sampling.h"

namespace {

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
