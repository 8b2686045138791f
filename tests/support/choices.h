#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <random>
#include <span>
#include <vector>

/// Makes choices one after the other, from given bytes or at random. Where the given bytes end, every choice
/// is the first option.
class Choices {
 public:
  explicit Choices(std::span<const std::uint8_t> bytes) : m_bytes(bytes) {}
  explicit Choices(std::uint32_t seed) : m_random(seed) {}

  /// Whether given bytes are left.
  bool AreLeft() const { return !m_bytes.empty(); }

  std::uint32_t Byte() {
    if (m_random) return static_cast<std::uint32_t>((*m_random)() & 0xFF);
    if (m_bytes.empty()) return 0;
    const std::uint8_t first = m_bytes.front();
    m_bytes = m_bytes.subspan(1);
    return first;
  }

  /// first … last, at most 65536 numbers.
  std::int32_t Number(std::int32_t first, std::int32_t last) {
    const std::uint32_t high = Byte();
    return first +
           static_cast<std::int32_t>((high * 256 + Byte()) % static_cast<std::uint32_t>(last - first + 1));
  }

  double Real(double low, double high) {
    return low + (high - low) * (Number(0, 0xFFFF) * 65536.0 + Number(0, 0xFFFF)) / 4294967296.0;
  }

  template <class Value>
  Value OneOf(std::initializer_list<Value> values) {
    return values.begin()[Byte() % values.size()];
  }

  /// True once in so many times.
  bool Once(std::uint32_t times) { return Byte() % times == times - 1; }

  void Fill(std::vector<std::uint8_t>& bytes) {
    std::minstd_rand random(Byte() + 1);
    for (std::uint8_t& value : bytes) value = static_cast<std::uint8_t>(random() >> 8);
  }

  /// Flips a bit, writes a byte or cuts the end off, up to so many times.
  template <class Text>
  void Damage(Text& text, std::int32_t most) {
    for (std::int32_t i = Number(0, most); i > 0 && !text.empty(); --i) {
      const auto block = static_cast<std::size_t>(Number(0, 255)) * 256;
      const std::size_t at = (block + Byte()) % text.size();
      const std::uint32_t what = Byte();
      if (what < 8) text[at] = static_cast<typename Text::value_type>(text[at] ^ (1 << what));
      if (what >= 8 && what < 250) text[at] = static_cast<typename Text::value_type>(Byte());
      if (what >= 250) text.resize(at);
    }
  }

 private:
  std::span<const std::uint8_t> m_bytes;
  std::optional<std::mt19937> m_random;
};
