#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "precise/picture.h"
#include "scenes/planarscene.h"

/// How the planes of a picture lie in memory.
struct PlaneLayout {
  bool isBottomUp = false;
  std::ptrdiff_t padding = 0;  ///< bytes behind each row
  std::ptrdiff_t guard = 0;    ///< bytes before the first row and behind the last
  std::uint8_t fill = 0;       ///< the value of all bytes at first
};

/// The planes of a picture, each in a memory block of its own.
class PicturePlanes {
 public:
  PicturePlanes(const precise::PictureFormat& format, const PlaneLayout& layout);

  precise::Picture Planes();
  precise::ConstPicture Planes() const;

  /// Converts samples from 8 bits to those of the format.
  void Write(const PlanarFrame& frame);
  /// Converts samples to 8 bits, rounded.
  PlanarFrame Read() const;

  /// True while padding and guards have their first value.
  bool IsRestUntouched() const;

  /// The memory of each plane, guards included.
  using Blocks = std::array<std::vector<std::uint8_t>, precise::kMaxPlanes>;
  Blocks& Memory() { return m_blocks; }

 private:
  template <class Byte, class Source>
  std::array<precise::PlaneOf<Byte>, precise::kMaxPlanes> View(Source& blocks) const;
  std::ptrdiff_t SampleBytes(int plane) const;
  std::ptrdiff_t Pitch(int plane) const { return SampleBytes(plane) + m_layout.padding; }
  std::size_t RowOffset(int plane, std::int32_t row) const;

  precise::PictureFormat m_format;
  PlaneLayout m_layout;
  Blocks m_blocks;
};
