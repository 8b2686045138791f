#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <gtest/gtest.h>
#include <span>
#include <vector>

#include "support/choices.h"
#include "support/memoryend.h"

enum class Fill { Zero, Limit, NearLimits, Random, Ramp };
inline constexpr Fill kFills[] = {Fill::Zero, Fill::Limit, Fill::NearLimits, Fill::Random, Fill::Ramp};

template <class Value>
std::vector<Value> Filled(std::size_t count, Fill fill, int limit, Choices& choices) {
  const auto limits = static_cast<unsigned>(limit + 1);
  std::vector<Value> values(count);
  for (std::size_t i = 0; i < count; ++i) {
    const int value = fill == Fill::Zero         ? 0
                      : fill == Fill::Limit      ? limit
                      : fill == Fill::NearLimits ? choices.OneOf({0, 1, limit - 1, limit})
                      : fill == Fill::Random     ? choices.Number(0, limit)
                                                 : static_cast<int>(i * 7 % limits);
    values[i] = static_cast<Value>(value);
  }
  return values;
}

/// Compares every table of loops with the first, the scalar one, which defines the results. Sources end where
/// memory does.
template <class Table>
class LoopTwins : public testing::Test {
 protected:
  explicit LoopTwins(std::span<const Table* const> tables) : m_tables(tables) {}

  void SetUp() override {
    if (m_tables.size() == 1) GTEST_SKIP() << "this machine has the scalar loops only";
  }

  std::int32_t Any(std::int32_t low, std::int32_t high) { return m_choices.Number(low, high); }
  Fill AnyFill() { return kFills[Any(0, 4)]; }

  /// `test(count, fill)` for short rows of every length and a few long ones, until one fails.
  template <class Test>
  void ForRows(std::initializer_list<std::int32_t> longRows, const Test& test) {
    std::vector<std::int32_t> counts = longRows;
    for (std::int32_t count = 1; count <= 100; ++count) counts.push_back(count);
    for (const std::int32_t count : counts) {
      for (const Fill fill : kFills) {
        SCOPED_TRACE(testing::Message() << count << " samples, fill " << static_cast<int>(fill));
        test(count, fill);
        if (HasFailure()) return;
      }
    }
  }

  /// `test(round)` until one fails.
  template <class Test>
  void ForRounds(int rounds, const Test& test) {
    for (int round = 0; round < rounds && !HasFailure(); ++round) {
      SCOPED_TRACE(round);
      test(round);
    }
  }

  /// The last values before the end of memory number `memory`.
  template <class Value>
  std::span<Value> Source(int memory, std::ptrdiff_t count, Fill fill, int limit) {
    const auto size = static_cast<std::size_t>(count);
    const std::span<Value> source = m_memories[memory].Last<Value>(size);
    std::ranges::copy(Filled<Value>(size, fill, limit, m_choices), source.begin());
    return source;
  }

  /// Rows of samples, which each end where memory does, from memory number `memory` on.
  template <std::size_t kRows>
  std::array<std::int16_t*, kRows> Rows(int memory, std::ptrdiff_t count, Fill fill, int limit) {
    std::array<std::int16_t*, kRows> rows;
    for (std::size_t i = 0; i < kRows; ++i)
      rows[i] = Source<std::int16_t>(memory + static_cast<int>(i), count, fill, limit).data();
    return rows;
  }

  /// A height from `least` on, often a small one: lines then end where memory does.
  std::int32_t AnyHeight(std::int32_t least) { return Any(least, m_choices.OneOf({least + 1, 40})); }

  /// A line through a picture, most often nearly a row of it: where it starts, and how far columns stand
  /// apart.
  struct Line {
    double startX, startY, stepX, stepY;
  };
  Line AnyLine(std::int32_t width, std::int32_t height) {
    const auto real = [&](double low, double high) { return m_choices.Real(low, high); };
    const double reach = m_choices.OneOf({0.0, 1e-8, 0.001, 0.02, 0.1, 0.5, 3.2}),
                 angle = real(-reach, reach);
    const double scale =
        m_choices.OneOf({1.0, real(0.9999, 1.0001), real(0.9, 1.1), real(0.4, 1), real(0.2, 3)});
    Line line = {real(-0.2, 1) * width, real(-0.2, 1) * height, scale * std::cos(angle),
                 scale * std::sin(angle)};
    for (double* const start : {&line.startX, &line.startY})
      if (m_choices.Once(3)) *start = std::floor(*start);
    return line;
  }

  /// Runs a loop from every table into memory of `size` bytes, at an arbitrary place of this alignment. What
  /// lies beside that memory must stay as it is.
  template <class Run>
  void ExpectSameBytes(std::ptrdiff_t size, const Run& run, int alignment = 2) {
    const std::ptrdiff_t offset = Any(0, 63) / alignment * alignment;
    std::vector<std::uint8_t> expected;
    for (const Table* const table : m_tables) {
      std::vector<std::uint8_t> actual(static_cast<std::size_t>(offset + size + kGuard), kMark);
      run(*table, actual.data() + offset);
      EXPECT_EQ(std::count(actual.begin(), actual.begin() + offset, kMark), offset) << table->name;
      EXPECT_EQ(std::count(actual.end() - kGuard, actual.end(), kMark), kGuard) << table->name;
      if (expected.empty()) expected = actual;
      const auto difference = std::mismatch(actual.begin(), actual.end(), expected.begin()).first;
      ASSERT_EQ(difference, actual.end())
          << table->name << ": first different byte " << difference - actual.begin() - offset;
    }
  }

  std::span<const Table* const> m_tables;
  Choices m_choices{1};

 private:
  static constexpr std::size_t kMemory = 1 << 20;
  static constexpr std::ptrdiff_t kGuard = 256;
  static constexpr std::uint8_t kMark = 0xCD;
  MemoryEnd m_memories[6] = {MemoryEnd(kMemory), MemoryEnd(kMemory), MemoryEnd(kMemory),
                             MemoryEnd(kMemory), MemoryEnd(kMemory), MemoryEnd(kMemory)};
};

inline std::int16_t* AsSamples(std::uint8_t* bytes) { return reinterpret_cast<std::int16_t*>(bytes); }
