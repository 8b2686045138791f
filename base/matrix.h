#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

/// An owned plane; rows stand one after the other without padding, the contents are undefined until written.
template <class T>
class Matrix {
 public:
  Matrix() = default;
  Matrix(std::int32_t width, std::int32_t height)
      : m_width(width),
        m_height(height),
        m_data(std::make_unique_for_overwrite<T[]>(static_cast<std::size_t>(width) *
                                                   static_cast<std::size_t>(height))) {}

  std::int32_t Width() const { return m_width; }
  std::int32_t Height() const { return m_height; }
  T* Row(std::int64_t row) { return m_data.get() + row * m_width; }
  const T* Row(std::int64_t row) const { return m_data.get() + row * m_width; }

 private:
  std::int32_t m_width = 0, m_height = 0;
  std::unique_ptr<T[]> m_data;
};

/// Brightness: four times that of 8 bits, at most 1024. So 16 bits hold it, and differences of it.
using Plane = Matrix<std::int16_t>;
