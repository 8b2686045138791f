#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

/// An owned plane. Rows have no padding; values are undefined until written. Throws std::bad_alloc.
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

/// Brightness of either engine, within 0 … 1024. 16 bits hold differences of it, too.
using Plane = Matrix<std::int16_t>;
