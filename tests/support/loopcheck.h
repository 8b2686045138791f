#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "support/guardedbuffer.h"

// For tests of tables of loops: sources, and the comparison of every table with the first, the scalar one.

enum class Fill { Zero, Limit, NearLimits, Random, Ramp };
inline constexpr Fill kFills[] = {Fill::Zero, Fill::Limit, Fill::NearLimits, Fill::Random, Fill::Ramp};

template <class Value>
std::vector<Value> Filled(std::size_t count, Fill fill, int limit, std::mt19937& random) {
  const int nearLimits[] = {0, 1, limit - 1, limit};
  std::vector<Value> values(count);
  for (std::size_t i = 0; i < count; ++i) {
    const auto any = static_cast<int>(random() >> 1);
    const int value = fill == Fill::Zero         ? 0
                      : fill == Fill::Limit      ? limit
                      : fill == Fill::NearLimits ? nearLimits[any % 4]
                      : fill == Fill::Random     ? any % (limit + 1)
                                                 : static_cast<int>(i * 7 % static_cast<unsigned>(limit + 1));
    values[i] = static_cast<Value>(value);
  }
  return values;
}

/// Runs a loop from every table into guarded memory of `size` bytes, `offset` bytes off its usual place.
template <class Table>
void ExpectSameBytes(std::span<const Table* const> tables, std::size_t size, std::size_t offset,
                     const std::string& what,
                     const std::type_identity_t<std::function<void(const Table&, std::uint8_t*)>>& run) {
  const auto resultOf = [&](const Table& table) {
    GuardedBuffer out(std::vector<std::uint8_t>(offset + size, 0xCD));
    run(table, out.Data() + offset);
    EXPECT_TRUE(out.GuardsIntact()) << table.name << ' ' << what;
    return out.Content();
  };
  const std::vector<std::uint8_t> expected = resultOf(*tables.front());
  for (const Table* const twin : tables.subspan(1)) {
    const std::vector<std::uint8_t> actual = resultOf(*twin);
    const auto difference = std::mismatch(actual.begin(), actual.end(), expected.begin()).first;
    ASSERT_EQ(difference, actual.end()) << twin->name << ' ' << what << ": first different byte "
                                        << difference - actual.begin() - static_cast<std::ptrdiff_t>(offset);
  }
}

inline std::int16_t* AsSamples(std::uint8_t* bytes) { return reinterpret_cast<std::int16_t*>(bytes); }
