#include "precise/loops.h"

#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <string>

#include "precise/sourceline.h"
#include "support/loopcheck.h"
#include "support/memoryend.h"

// Every table of loops against the scalar one, which defines the results, and that one against formulas.
// Sources end where memory does.

namespace precise {
namespace {

constexpr int kLargestBrightness = 1024;

std::span<const Loops* const> Tables() {
  static const Loops* const tables[] = {&kScalarLoops, &SelectLoops()};
  return tables;
}

#define SKIP_WITHOUT_TWINS() \
  if (Tables()[1] == &kScalarLoops) GTEST_SKIP() << "this machine has the scalar loops only"

class LoopTwins : public testing::Test {
 protected:
  std::int32_t Any(std::int32_t low, std::int32_t high) {
    return low + static_cast<std::int32_t>(m_random() % static_cast<unsigned>(high - low + 1));
  }
  double AnyReal(double low, double high) {
    return low + (high - low) * static_cast<double>(m_random()) / 4294967296.0;
  }

  /// The last values before the end of memory number `memory`.
  template <class Value>
  std::span<Value> Source(int memory, std::ptrdiff_t count, Fill fill, int limit) {
    const auto size = static_cast<std::size_t>(count);
    const std::span<Value> source = m_memories[memory].Last<Value>(size);
    std::ranges::copy(Filled<Value>(size, fill, limit, m_random), source.begin());
    return source;
  }

  /// Rows of samples with `before` ones ahead of where the pointers stand.
  template <std::size_t kRows>
  std::array<const std::int16_t*, kRows> Rows(int memory, std::int32_t count, std::int32_t before,
                                              Fill fill) {
    std::array<const std::int16_t*, kRows> rows;
    for (std::size_t i = 0; i < kRows; ++i)
      rows[i] =
          Source<std::int16_t>(memory + static_cast<int>(i), count, fill, kLargestBrightness).data() + before;
    return rows;
  }

  /// A line of any kind through a plane, most often nearly a row of it.
  SourceLine AnyLine(std::int32_t width, std::int32_t height) {
    const double reaches[] = {0, 1e-8, 0.001, 0.02, 0.1, 0.5, 3.2}, reach = reaches[Any(0, 6)];
    const double angle = AnyReal(-reach, reach);
    const double scales[] = {1, AnyReal(0.9999, 1.0001), AnyReal(0.9, 1.1), AnyReal(0.2, 3)};
    const double scale = scales[Any(0, 3)];
    SourceLine line = MakeSourceLine(AnyReal(-0.2, 1) * width, AnyReal(-0.2, 1) * height,
                                     scale * std::cos(angle), scale * std::sin(angle));
    for (std::int64_t* const start : {&line.startX, &line.startY})
      if (Any(0, 2) == 0) *start &= -kOneSample;
    return line;
  }

  /// Positions on an axis with so many samples before and after them.
  static PositionRange Within(std::int32_t side, std::int32_t before, std::int32_t after) {
    return {before * kOneSample, (side - after) * kOneSample - (kOneSample >> 9)};
  }

  static constexpr std::int32_t kOutWidth = 120;
  static constexpr std::size_t kMemory = 1 << 20;
  std::mt19937 m_random{1};
  MemoryEnd m_memories[6] = {MemoryEnd(kMemory), MemoryEnd(kMemory), MemoryEnd(kMemory),
                             MemoryEnd(kMemory), MemoryEnd(kMemory), MemoryEnd(kMemory)};
};

template <class Sum>
void Keep(const Sum& sum, std::uint8_t* out) {
  std::memcpy(out, &sum, sizeof sum);
}

TEST(LoopSelection, FollowsTheCapAndComparesNoLoopWithItself) {
  EXPECT_EQ(&SelectLoops(SimdLevel::Scalar), &kScalarLoops);
  SKIP_WITHOUT_TWINS();
  const Loops &scalar = kScalarLoops, &twin = SelectLoops();
  EXPECT_STRNE(twin.name, scalar.name);
  EXPECT_NE(twin.averageBlocks, scalar.averageBlocks);
  EXPECT_NE(twin.smoothRow, scalar.smoothRow);
  EXPECT_NE(twin.halveRow, scalar.halveRow);
  EXPECT_NE(twin.residualRow, scalar.residualRow);
  EXPECT_NE(twin.countBelow, scalar.countBelow);
  EXPECT_NE(twin.sumCell, scalar.sumCell);
  EXPECT_NE(twin.addGradientProducts, scalar.addGradientProducts);
  EXPECT_NE(twin.sumCappedDifferences, scalar.sumCappedDifferences);
  EXPECT_NE(twin.warpBilinear, scalar.warpBilinear);
  EXPECT_NE(twin.warpBicubic, scalar.warpBicubic);
}

TEST_F(LoopTwins, ReduceRowsOfAnyLength) {
  SKIP_WITHOUT_TWINS();
  for (std::int32_t count = 1; count <= 1100; count += count < 80 ? 1 : 113) {
    for (const Fill fill : kFills) {
      const std::string what = std::to_string(count) + ", fill " + std::to_string(static_cast<int>(fill));
      const std::size_t bytes = 2 * static_cast<std::size_t>(count), offset = 2 * m_random() % 64;
      for (const int bits : {8, 9, 10, 16}) {
        const int shift = Any(0, 7), size = bits > 8 ? 2 : 1;
        const std::int32_t side = 1 << shift, blocks = std::min(count, 2048 >> shift);
        const std::ptrdiff_t stride = std::ptrdiff_t{size} * (blocks * side + Any(0, 3));
        const auto source = Source<std::uint8_t>(0, stride * (side - 1) + size * blocks * side, fill, 255);
        ExpectSameBytes(Tables(), bytes, offset, "average " + what,
                        [&](const Loops& loops, std::uint8_t* out) {
                          loops.averageBlocks(source.data(), stride, bits, shift, AsSamples(out), blocks);
                        });
      }
      const auto three = Rows<3>(0, count, 0, fill);
      ExpectSameBytes(Tables(), bytes, offset, "smooth " + what, [&](const Loops& loops, std::uint8_t* out) {
        loops.smoothRow(three, AsSamples(out), count);
      });
      const auto four = Rows<4>(0, 2 * count, 0, fill);
      ExpectSameBytes(Tables(), bytes, offset, "halve " + what, [&](const Loops& loops, std::uint8_t* out) {
        loops.halveRow(four, AsSamples(out), count);
      });
      if (HasFailure()) return;
    }
  }
}

TEST(AverageBlocks, HoldTheLargestSums) {
  const std::vector<std::uint8_t> white(2 * 128 * 128, 0xFF);
  for (const Loops* const loops : Tables())
    for (const int bits : {8, 16})
      for (int shift = 0; shift <= 7; ++shift) {
        std::int16_t mean = 0;
        loops->averageBlocks(white.data(), 128 * (bits / 8), bits, shift, &mean, 1);
        EXPECT_EQ(mean, bits == 8 ? 1020 : 1024) << loops->name << ' ' << bits << ' ' << shift;
      }
}

TEST_F(LoopTwins, SumRowsOfAnyLength) {
  SKIP_WITHOUT_TWINS();
  for (std::int32_t count = 1; count <= 1100; count += count < 80 ? 1 : 113) {
    for (const Fill fill : kFills) {
      const std::string what = std::to_string(count) + ", fill " + std::to_string(static_cast<int>(fill));
      const auto a = Rows<3>(0, count + 2, 1, fill), b = Rows<3>(3, count + 2, 1, Fill::Random);
      const std::int32_t limit = Any(1, 32767), offset = Any(-1024, 1024);
      struct Sums {
        GradientProducts products = {1, -2, 3};
        std::int64_t below, differences;
      };
      ExpectSameBytes(Tables(), sizeof(Sums), 0, what, [&](const Loops& loops, std::uint8_t* out) {
        Sums sums;
        loops.addGradientProducts(a, b, {0, count}, sums.products);
        sums.below = loops.countBelow(a[0] - 1, count + 2, fill == Fill::Ramp ? kNoResidual : limit % 2048);
        sums.differences = loops.sumCappedDifferences(a[0] - 1, b[0] - 1, count + 2, offset, limit);
        Keep(sums, out);
      });
      if (HasFailure()) return;
    }
  }
}

TEST_F(LoopTwins, SumCellsOfAnySize) {
  SKIP_WITHOUT_TWINS();
  for (int round = 0; round < 4000; ++round) {
    const std::int32_t width = Any(1, kCellSide), height = Any(1, kCellSide);
    const std::ptrdiff_t pitch = width + Any(2, 40);
    const Fill fill = kFills[round % 5];
    const auto reference = Source<std::int16_t>(0, pitch * (height + 1) + width + (height > 1 ? 0 : 1), fill,
                                                kLargestBrightness);
    const auto residuals = Source<std::int16_t>(1, pitch * (height - 1) + width, Fill::Random, 4096);
    for (std::int16_t& residual : residuals) {
      residual = static_cast<std::int16_t>(residual - 2048);
      if (Any(0, 9) == 0) residual = kNoResidual;
    }
    const std::int32_t scale = Any(0, 1) == 0 ? Any(1, 7000) : Any(8, 64);
    const RobustWeight weight = {scale, (32768 + scale - 1) / scale};
    ExpectSameBytes(
        Tables(), sizeof(CellSums), 0, "round " + std::to_string(round),
        [&](const Loops& loops, std::uint8_t* out) {
          Keep(loops.sumCell(reference.data() + pitch, residuals.data(), pitch, width, height, weight), out);
        });
    if (HasFailure()) return;
  }
}

TEST_F(LoopTwins, SamplePlanesAlongAnyLine) {
  SKIP_WITHOUT_TWINS();
  for (int round = 0; round < 20000; ++round) {
    const std::int32_t width = Any(4, 150), height = Any(4, 40);
    const SourceLine line = AnyLine(width, height);
    const ColumnRun run =
        ColumnsInside(line, Within(width, 1, 2), Within(height, 1, 2), {Any(0, 3), kOutWidth});
    const auto plane =
        Source<std::int16_t>(0, std::ptrdiff_t{width} * height, kFills[round % 5], kLargestBrightness);
    const auto reference = Source<std::int16_t>(1, run.end, Fill::Random, kLargestBrightness);
    const Exposure exposure = {Any(4096, 65536), Any(-16, 16) << 20};
    ExpectSameBytes(Tables(), 2 * kOutWidth, 2 * m_random() % 64, "round " + std::to_string(round),
                    [&](const Loops& loops, std::uint8_t* out) {
                      loops.residualRow(plane.data(), width, line, run, reference.data(), exposure,
                                        AsSamples(out));
                    });
    if (HasFailure()) return;
  }
}

TEST_F(LoopTwins, WarpPlanesAlongAnyLines) {
  SKIP_WITHOUT_TWINS();
  for (int round = 0; round < 5000; ++round) {
    // Samples may be larger than their bits allow.
    const int depths[] = {8, 8, 9, 10, 12, 14, 15, 16}, bits = depths[Any(0, 7)], size = bits > 8 ? 2 : 1;
    const std::int32_t width = Any(4, round % 8 == 0 ? 900 : 150), height = Any(4, 40);
    const std::ptrdiff_t stride = std::ptrdiff_t{size} * (width + Any(0, 2)), last = stride * (height - 1);
    const bool isUpward = Any(0, 1) == 0;
    CositedPlanes planes = {};
    for (int i = 0; i < (round % 3 == 0 ? 2 : 1); ++i) {
      const auto samples = Source<std::uint8_t>(i, last + size * width, kFills[round % 5], 255);
      planes[static_cast<std::size_t>(i)] = {samples.data() + (isUpward ? last : 0),
                                             isUpward ? -stride : stride, width, height, bits};
    }
    // Rows of a picture that is turned, or any rows, which may lead far off the plane.
    SourceLine line = AnyLine(width, height);
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
    const std::size_t pitch = static_cast<std::size_t>(size * width), bytes = rows.size() * pitch;
    for (const auto warp : {&Loops::warpNearest, &Loops::warpBilinear, &Loops::warpBicubic})
      ExpectSameBytes(Tables(), 2 * bytes, m_random() % 64, "round " + std::to_string(round),
                      [&](const Loops& loops, std::uint8_t* out) {
                        for (std::size_t i = 0; i < rows.size(); ++i)
                          rows[i].out = {out + i * pitch, out + bytes + i * pitch};
                        (loops.*warp)(planes, rows.data(), static_cast<std::int32_t>(rows.size()));
                      });
    if (HasFailure()) return;
  }
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
  std::mt19937 random(3);
  for (const int bits : {8, 10, 14, 15, 16}) {
    const int largest = (1 << bits) - 1;
    for (const Fill fill : kFills) {
      // One in ten is larger than its bits allow.
      auto plane = Filled<std::uint16_t>(kSide * kSide, fill, largest, random);
      std::vector<std::uint8_t> bytes;
      for (std::uint16_t& sample : plane) {
        if (bits > 8 && random() % 10 == 0) sample = static_cast<std::uint16_t>(sample | random() << bits);
        bytes.push_back(static_cast<std::uint8_t>(sample));
        if (bits > 8) bytes.push_back(static_cast<std::uint8_t>(sample >> 8));
      }
      const int size = bits > 8 ? 2 : 1;
      const SourcePlane source = {bytes.data(), std::ptrdiff_t{size} * kSide, kSide, kSide, bits};
      for (int round = 0; round < 40; ++round) {
        // Positions in 256ths, which need no rounding. The first round shows the samples themselves.
        const bool isWhole = round == 0;
        const double startY = isWhole ? 5 : 1 + static_cast<int>(random() % 2048) / 256.0;
        const double stepX = isWhole ? 1 : 71 / 256.0, stepY = isWhole ? 0 : 1 / 256.0;
        const SourceLine line = MakeSourceLine(-2, startY, stepX, stepY);
        std::uint8_t cubic[2 * kColumns], linear[2 * kColumns];
        const WarpedRow cubicRow = {line, {0, kColumns}, {cubic}};
        const WarpedRow linearRow = {line, {0, kColumns}, {linear}};
        kScalarLoops.warpBicubic({source}, &cubicRow, 1);
        kScalarLoops.warpBilinear({source}, &linearRow, 1);
        for (int column = 0; column < kColumns; ++column) {
          const double x = column * stepX - 2, y = startY + column * stepY;
          const auto sampleOf = [&](const std::uint8_t* row) {
            return row[size * column] + (size > 1 ? row[size * column + 1] << 8 : 0);
          };
          // Weights are rounded to 1/16384, the first pass to 1/64 of an 8-bit step or a whole sample.
          const double error = isWhole ? 0 : 0.51 + std::max(2e-4 * largest, bits > 13 ? 1.5 : 0.02);
          ASSERT_NEAR(sampleOf(cubic), Between(plane, kSide, x, y, largest, Sharp), error)
              << bits << ' ' << x;
          ASSERT_NEAR(sampleOf(linear), Between(plane, kSide, x, y, largest, Linear), 0.51)
              << bits << ' ' << x;
        }
      }
    }
  }
}

}  // namespace
}  // namespace precise
