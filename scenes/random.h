#pragma once

#include <cstdint>
#include <random>

/// Random numbers that are the same with every standard library, as those of its distributions are not.
class Random {
 public:
  explicit Random(std::uint32_t seed) : m_engine(seed) {}

  std::uint32_t Number() { return static_cast<std::uint32_t>(m_engine()); }
  double Between(double low, double high) { return low + (high - low) * (Number() * 0x1p-32); }

 private:
  std::mt19937 m_engine;
};
