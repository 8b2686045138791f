#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

/// Bytes between two guards. `GuardsIntact` tells whether something was written just outside.
class GuardedBuffer {
 public:
  explicit GuardedBuffer(const std::vector<std::uint8_t>& content)
      : m_bytes(content.size() + 2 * kGuard, kMark) {
    std::copy(content.begin(), content.end(), m_bytes.begin() + kGuard);
  }

  std::uint8_t* Data() { return m_bytes.data() + kGuard; }
  std::vector<std::uint8_t> Content() const { return {m_bytes.begin() + kGuard, m_bytes.end() - kGuard}; }
  bool GuardsIntact() const {
    const auto isMark = [](std::uint8_t byte) { return byte == kMark; };
    return std::all_of(m_bytes.begin(), m_bytes.begin() + kGuard, isMark) &&
           std::all_of(m_bytes.end() - kGuard, m_bytes.end(), isMark);
  }

 private:
  static constexpr std::ptrdiff_t kGuard = 4096;
  static constexpr std::uint8_t kMark = 0xA5;
  std::vector<std::uint8_t> m_bytes;
};
