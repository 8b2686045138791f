#include "scenes/pictureplanes.h"

#include <algorithm>
#include <cstring>

PicturePlanes::PicturePlanes(const precise::PictureFormat& format, const PlaneLayout& layout)
    : m_format(format), m_layout(layout) {
  for (int plane = 0; plane < format.planes; ++plane)
    m_blocks[static_cast<std::size_t>(plane)].resize(
        static_cast<std::size_t>(Pitch(plane) * format.PlaneHeight(plane) + 2 * layout.guard), layout.fill);
}

template <class Byte, class Source>
std::array<precise::PlaneOf<Byte>, precise::kMaxPlanes> PicturePlanes::View(Source& blocks) const {
  std::array<precise::PlaneOf<Byte>, precise::kMaxPlanes> planes;
  for (int plane = 0; plane < m_format.planes; ++plane) {
    const auto i = static_cast<std::size_t>(plane);
    planes[i] = {blocks[i].data() + RowOffset(plane, 0), m_layout.isBottomUp ? -Pitch(plane) : Pitch(plane)};
  }
  return planes;
}

precise::Picture PicturePlanes::Planes() { return View<std::uint8_t>(m_blocks); }
precise::ConstPicture PicturePlanes::Planes() const { return View<const std::uint8_t>(m_blocks); }

void PicturePlanes::Write(const PlanarFrame& frame) {
  const std::size_t bytes = static_cast<std::size_t>(m_format.BytesPerSample());
  for (int plane = 0; plane < m_format.planes; ++plane) {
    const auto i = static_cast<std::size_t>(plane);
    const std::uint8_t* from = frame[i].data();
    for (std::int32_t row = 0; row < m_format.PlaneHeight(plane); ++row) {
      std::uint8_t* to = m_blocks[i].data() + RowOffset(plane, row);
      for (std::int32_t column = 0; column < m_format.PlaneWidth(plane); ++column, to += bytes) {
        const auto sample = static_cast<std::uint16_t>(*from++ << (m_format.bitsPerSample - 8));
        std::memcpy(to, &sample, bytes);
      }
    }
  }
}

PlanarFrame PicturePlanes::Read() const {
  PlanarFrame frame;
  const int one = 1 << (m_format.bitsPerSample - 8);
  const std::size_t bytes = static_cast<std::size_t>(m_format.BytesPerSample());
  for (int plane = 0; plane < m_format.planes; ++plane) {
    const auto i = static_cast<std::size_t>(plane);
    for (std::int32_t row = 0; row < m_format.PlaneHeight(plane); ++row) {
      const std::uint8_t* from = m_blocks[i].data() + RowOffset(plane, row);
      for (std::int32_t column = 0; column < m_format.PlaneWidth(plane); ++column, from += bytes) {
        std::uint16_t sample = 0;
        std::memcpy(&sample, from, bytes);
        frame[i].push_back(static_cast<std::uint8_t>(std::min((2 * sample + one) / (2 * one), 255)));
      }
    }
  }
  return frame;
}

bool PicturePlanes::IsRestUntouched() const {
  const auto isUntouched = [&](const std::uint8_t* bytes, std::ptrdiff_t count) {
    return std::count(bytes, bytes + count, m_layout.fill) == count;
  };
  for (int plane = 0; plane < m_format.planes; ++plane) {
    const std::vector<std::uint8_t>& block = m_blocks[static_cast<std::size_t>(plane)];
    if (!isUntouched(block.data(), m_layout.guard) ||
        !isUntouched(block.data() + block.size() - m_layout.guard, m_layout.guard))
      return false;
    for (std::int32_t row = 0; row < m_format.PlaneHeight(plane); ++row)
      if (!isUntouched(block.data() + RowOffset(plane, row) + SampleBytes(plane), m_layout.padding))
        return false;
  }
  return true;
}

std::ptrdiff_t PicturePlanes::SampleBytes(int plane) const {
  return std::ptrdiff_t{m_format.PlaneWidth(plane)} * m_format.BytesPerSample();
}

std::size_t PicturePlanes::RowOffset(int plane, std::int32_t row) const {
  const std::int32_t inMemory = m_layout.isBottomUp ? m_format.PlaneHeight(plane) - 1 - row : row;
  return static_cast<std::size_t>(m_layout.guard + inMemory * Pitch(plane));
}
