#include "precise/loops.h"

#include <cstring>

#include "precise/sourceline.h"
#include "support/loopcheck.h"

namespace precise {
namespace {

constexpr int kLargestBrightness = 1024;

/// The scalar loops, and those of this machine where they are others.
std::span<const Loops* const> Tables() {
  static const Loops* const tables[] = {&kScalarLoops, &SelectLoops()};
  return std::span(tables).first(tables[0] == tables[1] ? 1 : 2);
}

class PreciseLoops : public LoopTwins<Loops> {
 protected:
  PreciseLoops() : LoopTwins(Tables()) {}

  SourceLine AnySourceLine(std::int32_t width, std::int32_t height) {
    const Line line = AnyLine(width, height);
    return MakeSourceLine(line.startX, line.startY, line.stepX, line.stepY);
  }

  /// Positions on an axis with so many samples before and after them.
  static PositionRange Within(std::int32_t side, std::int32_t before, std::int32_t after) {
    return {before * kOneSample, (side - after) * kOneSample - (kOneSample >> 9)};
  }

  static constexpr std::int32_t kOutWidth = 120;
};

TEST_F(PreciseLoops, AreSelectedUnderACap) {
  EXPECT_EQ(&SelectLoops(SimdLevel::Scalar), &kScalarLoops);
  EXPECT_NE(kScalarLoops.warpBicubic, m_tables[1]->warpBicubic);
  EXPECT_STRNE(kScalarLoops.name, m_tables[1]->name);
}

TEST_F(PreciseLoops, ReduceRowsOfAnyLength) {
  ForRows({113, 226, 511, 512, 513, 565, 1024, 1025, 1100}, [&](std::int32_t count, Fill fill) {
    for (const int bits : {8, m_choices.OneOf({9, 10, 16})}) {
      const int shift = Any(0, 7), size = bits > 8 ? 2 : 1;
      const std::int32_t side = 1 << shift, blocks = std::min(count, 1100 >> shift);
      const std::ptrdiff_t stride = std::ptrdiff_t{size} * (blocks * side + Any(0, 3));
      const auto source = Source<std::uint8_t>(0, stride * (side - 1) + size * blocks * side, fill, 255);
      ExpectSameBytes(2 * count, [&](const Loops& loops, std::uint8_t* out) {
        loops.averageBlocks(source.data(), stride, bits, shift, AsSamples(out), blocks);
      });
    }
    const auto [a, b, c] = Rows<3>(0, count, fill, kLargestBrightness);
    ExpectSameBytes(2 * count, [&](const Loops& loops, std::uint8_t* out) {
      loops.smoothRow({a, b, c}, AsSamples(out), count);
    });
    const auto [d, e, f, g] = Rows<4>(0, 2 * count, fill, kLargestBrightness);
    ExpectSameBytes(2 * count, [&](const Loops& loops, std::uint8_t* out) {
      loops.halveRow({d, e, f, g}, AsSamples(out), count);
    });
  });
}

TEST(AverageBlocks, HoldTheLargestSums) {
  const std::vector<std::uint8_t> white(2 * 128 * 128, 0xFF);
  for (const Loops* const loops : Tables())
    for (const int bits : {8, 16})
      for (int shift = 0; shift <= 7; ++shift) {
        std::int16_t mean = 0;
        loops->averageBlocks(white.data(), 128 * (bits / 8), bits, shift, &mean, 1);
        EXPECT_EQ(mean, bits == 8 ? 1020 : 1024) << loops->name << ' ' << bits << ' ' << shift;
        // A mean of half a step is rounded up.
        const std::uint8_t halves[] = {32, 0, 32, 0, 32, 0, 32, 0};
        loops->averageBlocks(halves, 4, 16, 1, &mean, 1);
        EXPECT_EQ(mean, 1) << loops->name;
      }
}

TEST(SumRows, CapDifferencesAndCountWhatIsBelow) {
  const std::int16_t a[] = {0, 10, 3}, b[] = {5, 5, 5}, residuals[] = {-3, -2, 2, 3, kNoResidual};
  for (const Loops* const loops : Tables()) {
    EXPECT_EQ(loops->sumCappedDifferences(a, b, 3, 1, 5), 4 + 5 + 1);
    EXPECT_EQ(loops->countBelow(residuals, 5, 3), 2);
  }
}

TEST_F(PreciseLoops, SumRowsOfAnyLength) {
  ForRows({511, 512, 513, 1100}, [&](std::int32_t count, Fill fill) {
    const auto [a0, a1, a2] = Rows<3>(0, count + 2, fill, kLargestBrightness);
    const auto [b0, b1, b2] = Rows<3>(3, count + 2, Fill::Random, kLargestBrightness);
    const std::int32_t limit = Any(1, 32767), offset = Any(-1024, 1024);
    ExpectSameBytes(
        sizeof(GradientProducts) + 2 * sizeof(std::int32_t), [&](const Loops& loops, std::uint8_t* out) {
          GradientProducts products = {1, -2, 3};
          loops.addGradientProducts({a0 + 1, a1 + 1, a2 + 1}, {b0 + 1, b1 + 1, b2 + 1}, {0, count}, products);
          const std::int32_t sums[] = {
              loops.countBelow(a0, count + 2, fill == Fill::Ramp ? kNoResidual : limit % 2048),
              loops.sumCappedDifferences(a0, b0, count + 2, offset, limit)};
          std::memcpy(out, &products, sizeof products);
          std::memcpy(out + sizeof products, sums, sizeof sums);
        });
  });
}

TEST_F(PreciseLoops, SumCellsOfAnySize) {
  ForRounds(4000, [&](int) {
    const std::int32_t width = Any(1, kCellSide), height = Any(1, kCellSide);
    const std::ptrdiff_t pitch = width + Any(2, 40);
    const auto reference = Source<std::int16_t>(0, pitch * (height + 1) + width + (height > 1 ? 0 : 1),
                                                AnyFill(), kLargestBrightness);
    const auto residuals = Source<std::int16_t>(1, pitch * (height - 1) + width, Fill::Random, 4096);
    for (std::int16_t& residual : residuals)
      residual = m_choices.Once(10) ? kNoResidual : static_cast<std::int16_t>(residual - 2048);
    const std::int32_t scale = m_choices.Once(2) ? Any(1, 7000) : Any(8, 64);
    const RobustWeight weight = {scale, (32768 + scale - 1) / scale};
    ExpectSameBytes(sizeof(CellSums), [&](const Loops& loops, std::uint8_t* out) {
      const CellSums sums =
          loops.sumCell(reference.data() + pitch, residuals.data(), pitch, width, height, weight);
      std::memcpy(out, &sums, sizeof sums);
    });
  });
}

TEST_F(PreciseLoops, SamplePlanesAlongAnyLine) {
  ForRounds(20000, [&](int) {
    const std::int32_t width = Any(4, 150), height = AnyHeight(4);
    const SourceLine line = AnySourceLine(width, height);
    const ColumnRun run =
        ColumnsInside(line, Within(width, 1, 2), Within(height, 1, 2), {Any(0, 3), kOutWidth});
    const auto plane = Source<std::int16_t>(0, std::ptrdiff_t{width} * height, AnyFill(), kLargestBrightness);
    const auto reference = Source<std::int16_t>(1, run.end, Fill::Random, kLargestBrightness);
    const Exposure exposure = {Any(4096, 65536), Any(-16, 16) << 20};
    ExpectSameBytes(2 * kOutWidth, [&](const Loops& loops, std::uint8_t* out) {
      loops.residualRow(plane.data(), width, line, run, reference.data(), exposure, AsSamples(out));
    });
  });
}

TEST_F(PreciseLoops, WarpPlanesAlongAnyLines) {
  ForRounds(5000, [&](int round) {
    // Samples may be larger than their bits allow.
    const int bits = m_choices.OneOf({8, 8, 9, 10, 12, 14, 15, 16}), size = bits > 8 ? 2 : 1;
    const std::int32_t width = Any(4, round % 8 == 0 ? 900 : 150), height = AnyHeight(4);
    const std::ptrdiff_t stride = std::ptrdiff_t{size} * (width + Any(0, 2)), last = stride * (height - 1);
    const bool isUpward = m_choices.Once(2);
    CositedPlanes planes = {};
    for (int i = 0; i < (round % 3 == 0 ? 2 : 1); ++i) {
      const auto samples = Source<std::uint8_t>(i, last + size * width, AnyFill(), 255);
      planes[static_cast<std::size_t>(i)] = {samples.data() + (isUpward ? last : 0),
                                             isUpward ? -stride : stride, width, height, bits};
    }
    // Rows of a picture that is turned, or any rows, which may lead far off the plane.
    SourceLine line = AnySourceLine(width, height);
    const bool isPicture = Any(0, 2) > 0;
    const std::int64_t advanceX = isPicture ? -line.stepY : Any(0, 1) * Any(-40, 40) * kOneSample;
    const std::int64_t advanceY = isPicture ? line.stepX : Any(-8, 8) * (kOneSample / 3);
    const std::int32_t off = Any(0, 3) > 0 ? 1 : Any(2, 40);
    std::vector<WarpedRow> rows(static_cast<std::size_t>(Any(1, kMaxWarpedRows)));
    for (WarpedRow& row : rows) {
      row.line = line;
      row.covered = ColumnsInside(line, Within(width, -off, 1 - off), Within(height, -off, 1 - off),
                                  {Any(0, 3), width - 2});
      line.startX += advanceX;
      line.startY += advanceY;
    }
    const std::ptrdiff_t pitch = size * width, bytes = std::ssize(rows) * pitch;
    for (const auto warp : {&Loops::warpNearest, &Loops::warpBilinear, &Loops::warpBicubic})
      ExpectSameBytes(
          2 * bytes,
          [&](const Loops& loops, std::uint8_t* out) {
            std::uint8_t* to = out;
            for (WarpedRow& row : rows) row.out = {to, to + bytes}, to += pitch;
            (loops.*warp)(planes, rows.data(), static_cast<std::int32_t>(rows.size()));
          },
          1);
  });
}

/// The weight of a sample that stands so far before a position; and a triangle.
double Sharp(double distance) {
  const double whole = std::floor(distance), t = distance - whole, p = t * (1 - t), q = p / 2 + p * p;
  return whole == 1    ? -(1 - t) * q
         : whole == 0  ? 1 - t + (2 - 3 * t) * q
         : whole == -1 ? t + (3 * t - 1) * q
         : whole == -2 ? -t * q
                       : 0;
}
double Linear(double x) { return std::max(0.0, 1 - std::abs(x)); }

/// The plane between its samples, which beyond its edges go on.
template <class Weight>
double Between(const std::vector<std::uint16_t>& plane, std::int32_t side, double x, double y, int largest,
               Weight weight) {
  double sum = 0;
  for (int row = -4; row <= side + 3; ++row)
    for (int column = -4; column <= side + 3; ++column) {
      const auto at =
          static_cast<std::size_t>(std::clamp(row, 0, side - 1) * side + std::clamp(column, 0, side - 1));
      sum += weight(x - column) * weight(y - row) * std::min<int>(plane[at], largest);
    }
  return std::clamp(sum, 0.0, double{1} * largest);
}

TEST(WarpRows, FollowTheFormulasAtEveryDepthUpToRounding) {
  constexpr std::int32_t kSide = 12, kColumns = 15;
  Choices choices(3);
  for (const int bits : {8, 10, 14, 15, 16}) {
    const int largest = (1 << bits) - 1;
    for (const Fill fill : kFills) {
      // One in ten is larger than its bits allow.
      auto plane = Filled<std::uint16_t>(kSide * kSide, fill, largest, choices);
      std::vector<std::uint8_t> bytes;
      for (std::uint16_t& sample : plane) {
        if (bits > 8 && choices.Once(10))
          sample = static_cast<std::uint16_t>(sample | choices.Byte() << bits);
        bytes.push_back(static_cast<std::uint8_t>(sample));
        if (bits > 8) bytes.push_back(static_cast<std::uint8_t>(sample >> 8));
      }
      const int size = bits > 8 ? 2 : 1;
      const SourcePlane source = {bytes.data(), std::ptrdiff_t{size} * kSide, kSide, kSide, bits};
      for (int round = 0; round < 40; ++round) {
        // Positions in 256ths, which need no rounding. The first round shows the samples themselves.
        const bool isWhole = round == 0;
        const double startY = isWhole ? 5 : 1 + choices.Number(0, 2047) / 256.0;
        const double stepX = isWhole ? 1 : 71 / 256.0, stepY = isWhole ? 0 : 1 / 256.0;
        const SourceLine line = MakeSourceLine(-2, startY, stepX, stepY);
        // Weights are rounded to 1/16384, the first pass to 1/64 of an 8-bit step or a whole sample.
        const double error = isWhole ? 0 : 0.51 + std::max(2e-4 * largest, bits > 13 ? 1.5 : 0.02);
        const auto expect = [&](WarpRows warp, const auto& weight, double bound) {
          std::uint8_t out[2 * kColumns];
          const WarpedRow row = {line, {0, kColumns}, {out}};
          warp({source}, &row, 1);
          for (int column = 0; column < kColumns; ++column) {
            const double x = column * stepX - 2, y = startY + column * stepY;
            const int sample = out[size * column] + (size > 1 ? out[size * column + 1] << 8 : 0);
            ASSERT_NEAR(sample, Between(plane, kSide, x, y, largest, weight), bound) << bits << ' ' << x;
          }
        };
        expect(kScalarLoops.warpBicubic, Sharp, error);
        expect(kScalarLoops.warpBilinear, Linear, 0.51);
      }
    }
  }
}

}  // namespace
}  // namespace precise
