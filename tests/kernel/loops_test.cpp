#include "kernel/loops.h"

#include <array>
#include <cstring>
#include <gtest/gtest.h>

#include "kernel/dispatch.h"
#include "kernel/frame.h"
#include "kernel/sampling.h"
#include "kernel/stabilizevideokernel.h"
#include "support/loopcheck.h"
#include "support/params.h"

namespace {

constexpr int kLargestGrey = 1020;

const KernelOps& g_bestWhileLoading = BestOps();

TEST(Dispatch, TakesTheWidestLoopsThatProcessorAndCapAllow) {
  EXPECT_EQ(&SelectOps({.avx2 = false}, SimdLevel::Avx2), &kScalarOps);
  EXPECT_EQ(&SelectOps({.avx2 = true}, SimdLevel::Scalar), &kScalarOps);
  if (DetectCpuFeatures().avx2) {
    EXPECT_STREQ(SelectOps({.avx2 = true}, SimdLevel::Avx2).name, "avx2");
  }
  EXPECT_EQ(AvailableOps().front(), &kScalarOps);
  EXPECT_EQ(AvailableOps().size(), DetectCpuFeatures().avx2 ? 2U : 1U);
  EXPECT_EQ(&BestOps(), AvailableOps().back());
  EXPECT_EQ(&g_bestWhileLoading, AvailableOps().back()) << "objects may be made while the program is loaded";
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

class KernelLoops : public LoopTwins<KernelOps> {
 protected:
  KernelLoops() : LoopTwins(AvailableOps()) {}

  SourceLine AnyFixedLine(std::int32_t width, std::int32_t height, int bits) {
    const Line line = AnyLine(width, height);
    const auto fixed = [bits](double value) { return static_cast<std::int64_t>(std::ldexp(value, bits)); };
    SourceLine fixedLine = {fixed(line.startX), fixed(line.startY), fixed(line.stepX), fixed(line.stepY),
                            bits};
    // The lowest bits clear, as an unmagnified frame has them.
    if (m_choices.Once(2))
      for (std::int64_t* const value :
           {&fixedLine.startX, &fixedLine.startY, &fixedLine.stepX, &fixedLine.stepY})
        *value &= -32;
    return fixedLine;
  }

  /// Which columns to make of those that a line has a source for: mostly all.
  ColumnRun AnyRun(const SourceLine& line, std::int32_t width, std::int32_t height) {
    return UsableColumns(line, width, height, {m_choices.Once(3) ? std::min(Any(0, 4), width) : 0, width});
  }
};

TEST_F(KernelLoops, CopyConvertAndReduceRowsOfAnyLength) {
  ForRows({127, 128, 129, 191, 192, 193, 255, 256, 257, 399}, [&](std::int32_t count, Fill fill) {
    const auto pixels = Source<std::uint8_t>(0, count * kBytesPerPixel, fill, 255);
    ExpectSameBytes(
        std::ssize(pixels),
        [&](const KernelOps& ops, std::uint8_t* out) {
          ops.copyBytes(pixels.data(), out, std::ssize(pixels));
        },
        1);
    ExpectSameBytes(2 * count, [&](const KernelOps& ops, std::uint8_t* out) {
      ops.greyRow(pixels.data(), AsSamples(out), count);
    });
    const auto [a, b, c, d, e] = Rows<5>(0, 2 * count + 3, fill, kLargestGrey);
    ExpectSameBytes(2 * count, [&](const KernelOps& ops, std::uint8_t* out) {
      ops.reduceRow({a + 2, b + 2, c + 2, d + 2, e + 2}, AsSamples(out), count);
    });
  });
}

TEST_F(KernelLoops, SumRowsOfAnyLength) {
  ForRows({16500, 16511, 16512, 16513, 16530, 50000}, [&](std::int32_t count, Fill fill) {
    const auto rows = Rows<6>(0, count + 2, fill, kLargestGrey);
    // Differences are largest where neighbours stand at opposite limits.
    for (std::size_t row = 0; row < rows.size() && fill == Fill::Limit; ++row)
      for (std::size_t i = 0; i < static_cast<std::size_t>(count) + 2; ++i)
        rows[row][i] = (i / 2 + row) % 2 == 0 ? kLargestGrey : 0;
    const std::int16_t* const previous = rows[0] + 1;
    const RotatedRow current = {{rows[1] + 1, rows[2] + 1, rows[3] + 1}, rows[4] + 1, rows[5] + 1};
    const std::int64_t start = std::int64_t{Any(0, 65535)} << 36;
    ExpectSameBytes(sizeof(TranslationSums), [&](const KernelOps& ops, std::uint8_t* out) {
      TranslationSums sums = {start, -start, 1, 2, 3};
      ops.addTranslationRow(previous, current.samples, count, sums);
      std::memcpy(out, &sums, sizeof sums);
    });
    ExpectSameBytes(sizeof(RotationSums), [&](const KernelOps& ops, std::uint8_t* out) {
      RotationSums sums = {start, -start, 1, 2, 3, 4, 5, 6, 7};
      ops.addRotationRow(previous, current, count, sums);
      std::memcpy(out, &sums, sizeof sums);
    });
  });
}

TEST_F(KernelLoops, SamplePlanesAndFramesAlongAnyLine) {
  ForRounds(6000, [&](int round) {
    const std::int32_t width = Any(2, 151), height = AnyHeight(2);
    const SourceLine line = AnyFixedLine(width, height, round % 2 == 0 ? 22 : 32);
    const ColumnRun run = AnyRun(line, width, height);
    const std::ptrdiff_t pitch = width + Any(0, 2);
    const auto plane = Source<std::int16_t>(0, pitch * (height - 1) + width, AnyFill(), kLargestGrey);
    ExpectSameBytes(2 * width, [&](const KernelOps& ops, std::uint8_t* out) {
      ops.sampleRow(plane.data(), pitch, line, run, AsSamples(out));
    });
    const SourceLine frameLine = AnyFixedLine(width, height, round % 2 == 0 ? 21 : 37);
    const ColumnRun frameRun = AnyRun(frameLine, width, height);
    const std::ptrdiff_t stride = FrameGeometry(width, height).strideBytes;
    const auto pixels =
        Source<std::uint8_t>(1, stride * (height - 1) + width * kBytesPerPixel, AnyFill(), 255);
    for (const auto loop : {&KernelOps::warpRowNearest, &KernelOps::warpRowBilinear})
      ExpectSameBytes(
          width * kBytesPerPixel,
          [&](const KernelOps& ops, std::uint8_t* out) {
            (ops.*loop)(pixels.data(), stride, frameLine, frameRun, out);
          },
          1);
  });
}

}  // namespace
