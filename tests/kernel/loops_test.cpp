#include "kernel/loops.h"

#include <array>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <string>

#include "kernel/dispatch.h"
#include "kernel/frame.h"
#include "kernel/sampling.h"
#include "kernel/stabilizevideokernel.h"
#include "support/loopcheck.h"
#include "support/params.h"

// Every table of loops against the scalar one, which defines the results. Sources end exactly where the loops
// may read to, so that the sanitizers see a read beyond.

namespace {

std::span<const KernelOps* const> Twins() { return AvailableOps().subspan(1); }

#define SKIP_WITHOUT_TWINS() \
  if (Twins().empty()) GTEST_SKIP() << "this machine has the scalar loops only"

std::vector<std::int16_t> Samples(std::size_t count, Fill fill, std::mt19937& random) {
  return Filled<std::int16_t>(count, fill, 1020, random);
}
std::vector<std::uint8_t> Bytes(std::size_t count, Fill fill, std::mt19937& random) {
  return Filled<std::uint8_t>(count, fill, 255, random);
}

const KernelOps& g_bestWhileLoading = BestOps();

TEST(Dispatch, TakesTheWidestLoopsThatProcessorAndCapAllow) {
  EXPECT_EQ(&SelectOps({.avx2 = false}, SimdLevel::Avx2), &kScalarOps);
  EXPECT_EQ(&SelectOps({.avx2 = true}, SimdLevel::Scalar), &kScalarOps);
  if (DetectCpuFeatures().avx2) {
    EXPECT_STREQ(SelectOps({.avx2 = true}, SimdLevel::Avx2).name, "avx2");
  }
  EXPECT_EQ(AvailableOps().front(), &kScalarOps);
  EXPECT_EQ(&BestOps(), AvailableOps().back());
  EXPECT_EQ(&g_bestWhileLoading, AvailableOps().back()) << "objects may be made while the program is loaded";
  EXPECT_EQ(Twins().empty(), !DetectCpuFeatures().avx2);
}

TEST(Dispatch, MakesKernelsRunTheLoopsTheyAreGiven) {
  static int rows = 0;
  KernelOps counting = kScalarOps;
  counting.greyRow = [](const std::uint8_t* pixels, std::int16_t* grey, std::int32_t count) {
    ++rows;
    kScalarOps.greyRow(pixels, grey, count);
  };
  CStabilizeVideoKernel kernel(counting);
  ASSERT_TRUE(kernel.Initialize(DefaultParams(8, 6)));
  std::vector<std::uint8_t> frame(8 * 6 * kBytesPerPixel);
  bool noOutput = false;
  ASSERT_TRUE(kernel.ProcessFrame(frame.data(), false, &noOutput));
  EXPECT_EQ(rows, 6);
}

TEST(LoopTwins, CopyAtAnyPlaceAndLength) {
  SKIP_WITHOUT_TWINS();
  std::mt19937 random(1);
  for (std::size_t count = 0; count < 400; ++count) {
    const std::size_t from = random() % 64, to = random() % 64;
    const std::vector<std::uint8_t> source = Bytes(from + count, Fill::Random, random);
    ExpectSameBytes(AvailableOps(), count, to, std::to_string(count) + " bytes",
                    [&](const KernelOps& ops, std::uint8_t* out) {
                      ops.copyBytes(source.data() + from, out, static_cast<std::ptrdiff_t>(count));
                    });
    if (HasFailure()) return;
  }
}

TEST(LoopTwins, ConvertAndReduceRowsOfAnyLength) {
  SKIP_WITHOUT_TWINS();
  std::mt19937 random(2);
  for (std::int32_t count = 1; count <= 100; ++count) {
    for (const Fill fill : kFills) {
      const std::size_t from = random() % 32, to = random() % 32;
      const auto length = static_cast<std::size_t>(count);
      const std::string what =
          std::to_string(count) + " samples, fill " + std::to_string(static_cast<int>(fill));
      const std::vector<std::uint8_t> pixels = Bytes(from + length * kBytesPerPixel, fill, random);
      ExpectSameBytes(AvailableOps(), 2 * length, 2 * to, "grey " + what,
                      [&](const KernelOps& ops, std::uint8_t* out) {
                        ops.greyRow(pixels.data() + from, AsSamples(out), count);
                      });
      std::array<std::vector<std::int16_t>, 5> source;
      FiveRows rows = {};
      for (std::size_t row = 0; row < 5; ++row) {
        source[row] = Samples(from + 2 * length + 3, fill, random);
        rows[row] = source[row].data() + from + 2;
      }
      ExpectSameBytes(
          AvailableOps(), 2 * length, 2 * to, "reduce " + what,
          [&](const KernelOps& ops, std::uint8_t* out) { ops.reduceRow(rows, AsSamples(out), count); });
      if (HasFailure()) return;
    }
  }
}

/// Rows that the sums read: the previous frame's, three of the current one and two turned ones.
struct SumRows {
  SumRows(std::int32_t count, Fill fill, std::mt19937& random) {
    const auto length = static_cast<std::size_t>(count);
    for (std::vector<std::int16_t>& row : rows) row = Samples(length + 2, fill, random);
    // Differences are largest where neighbours stand at opposite limits.
    if (fill == Fill::Limit)
      for (std::size_t row = 0; row < rows.size(); ++row)
        for (std::size_t i = 0; i < length + 2; ++i)
          rows[row][i] = static_cast<std::int16_t>((i / 2 + row) % 2 == 0 ? 1020 : 0);
  }

  const std::int16_t* Previous() const { return At(0); }
  RotatedRow Current() const { return {{At(1), At(2), At(3)}, At(4), At(5)}; }

 private:
  const std::int16_t* At(std::size_t row) const { return rows[row].data() + 1; }

  std::array<std::vector<std::int16_t>, 6> rows;
};

TEST(LoopTwins, SumRowsOfAnyLength) {
  SKIP_WITHOUT_TWINS();
  std::mt19937 random(3);
  std::vector<std::int32_t> counts = {16500, 16511, 16512, 16513, 16530, 50000};
  for (std::int32_t count = 1; count <= 100; ++count) counts.push_back(count);
  for (const std::int32_t count : counts) {
    for (const Fill fill : kFills) {
      const SumRows rows(count, fill, random);
      const std::string what =
          std::to_string(count) + " samples, fill " + std::to_string(static_cast<int>(fill));
      const std::int64_t start = static_cast<std::int64_t>(random()) << 20;
      ExpectSameBytes(AvailableOps(), sizeof(TranslationSums), 0, what,
                      [&](const KernelOps& ops, std::uint8_t* out) {
                        TranslationSums sums = {start, -start, 1, 2, 3};
                        ops.addTranslationRow(rows.Previous(), rows.Current().samples, count, sums);
                        std::memcpy(out, &sums, sizeof sums);
                      });
      ExpectSameBytes(AvailableOps(), sizeof(RotationSums), 0, what,
                      [&](const KernelOps& ops, std::uint8_t* out) {
                        RotationSums sums = {start, -start, 1, 2, 3, 4, 5, 6, 7};
                        ops.addRotationRow(rows.Previous(), rows.Current(), count, sums);
                        std::memcpy(out, &sums, sizeof sums);
                      });
      if (HasFailure()) return;
    }
  }
}

/// A line through a picture: turned by any angle, most often a small one, magnified by 32 / zoom. Nothing
/// in the kernel shrinks a picture (zoom above 32), but loops must not take such a line for a magnified one.
SourceLine RandomLine(std::int32_t width, std::int32_t height, int bits, std::int32_t zoom,
                      std::mt19937& random) {
  const auto any = [&](double low, double high) {
    return low + (high - low) * static_cast<double>(random()) / 4294967296.0;
  };
  const double reach[] = {0, 1e-8, 0.001, 0.02, 0.1, 0.5, 4};
  const double limit = reach[random() % std::size(reach)];
  const FixedRotation turn(any(-limit, limit), bits);
  const auto one = static_cast<double>(std::int64_t{1} << bits);
  SourceLine line = {static_cast<std::int64_t>(any(-0.2, 1) * width * one),
                     static_cast<std::int64_t>(any(-0.2, 1) * height * one), turn.cosine * zoom / 32,
                     turn.sine * zoom / 32, bits};
  // Whole samples, as an untouched picture has them.
  for (std::int64_t* const start : {&line.startX, &line.startY})
    if (random() % 3 == 0) *start &= -(std::int64_t{1} << bits);
  // The lowest bits clear, as an unmagnified frame has them.
  if (random() % 2 == 0)
    for (std::int64_t* const value : {&line.startX, &line.startY, &line.stepX, &line.stepY}) *value &= -32;
  return line;
}

/// Which columns to make of those that a line has a source for: mostly all.
ColumnRun RandomRun(const SourceLine& line, std::int32_t width, std::int32_t height, std::int32_t outWidth,
                    std::mt19937& random) {
  const auto from = static_cast<std::int32_t>(random() % 3 == 0 ? random() % 5 : 0);
  return UsableColumns(line, width, height, {std::min(from, outWidth), outWidth});
}

TEST(LoopTwins, SamplePlanesAlongAnyLine) {
  SKIP_WITHOUT_TWINS();
  std::mt19937 random(4);
  for (int round = 0; round < 6000; ++round) {
    const auto width = static_cast<std::int32_t>(2 + random() % 150),
               height = static_cast<std::int32_t>(2 + random() % 40);
    const int bits = random() % 2 == 0 ? 22 : 32;
    const std::int32_t zoom = random() % 8 == 0 ? 33 : 32;
    const SourceLine line = RandomLine(width, height, bits, zoom, random);
    const ColumnRun run = RandomRun(line, width, height, width, random);
    const std::ptrdiff_t pitch = width + static_cast<std::ptrdiff_t>(random() % 3);
    const std::vector<std::int16_t> plane =
        Samples(static_cast<std::size_t>(pitch * (height - 1) + width), kFills[random() % 5], random);
    ExpectSameBytes(AvailableOps(), 2 * static_cast<std::size_t>(width), 2 * (random() % 16),
                    "round " + std::to_string(round), [&](const KernelOps& ops, std::uint8_t* out) {
                      ops.sampleRow(plane.data(), pitch, line, run, AsSamples(out));
                    });
    if (HasFailure()) return;
  }
}

TEST(LoopTwins, WarpFramesAlongAnyLine) {
  SKIP_WITHOUT_TWINS();
  std::mt19937 random(5);
  for (int round = 0; round < 6000; ++round) {
    const auto width = static_cast<std::int32_t>(2 + random() % 150),
               height = static_cast<std::int32_t>(2 + random() % 40);
    const int bits = random() % 2 == 0 ? 21 : 37;
    const auto zoom = static_cast<std::int32_t>(random() % 2 == 0 ? 32 : 16 + random() % 20);
    const SourceLine line = RandomLine(width, height, bits, zoom, random);
    const ColumnRun run = RandomRun(line, width, height, width, random);
    const FrameGeometry frame(width, height);
    const std::vector<std::uint8_t> pixels =
        Bytes(static_cast<std::size_t>(frame.strideBytes * (height - 1) + width * kBytesPerPixel),
              kFills[random() % 5], random);
    for (const auto loop : {&KernelOps::warpRowNearest, &KernelOps::warpRowBilinear})
      ExpectSameBytes(AvailableOps(), static_cast<std::size_t>(width) * kBytesPerPixel, random() % 32,
                      "round " + std::to_string(round), [&](const KernelOps& ops, std::uint8_t* out) {
                        (ops.*loop)(pixels.data(), frame.strideBytes, line, run, out);
                      });
    if (HasFailure()) return;
  }
}

}  // namespace
