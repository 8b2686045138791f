#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "precise/picture.h"
#include "precise/similarity.h"

/// Samples of 8 bits, plane after plane, rows without padding.
using PlanarFrame = std::array<std::vector<std::uint8_t>, precise::kMaxPlanes>;

/// Planes of a picture, each in a block of its own size, so that sanitizers see what is read or written
/// beside it. Rows may stand in either order, and have padding after them.
class PlanarBuffer {
 public:
  explicit PlanarBuffer(const precise::PictureFormat& format, bool isBottomUp = false,
                        std::ptrdiff_t padding = 0, std::uint8_t fill = 0);

  template <class Byte>
  std::array<precise::PlaneOf<Byte>, precise::kMaxPlanes> View() {
    std::array<precise::PlaneOf<Byte>, precise::kMaxPlanes> view;
    for (std::size_t plane = 0; plane < view.size(); ++plane)
      if (!bytes[plane].empty()) view[plane] = {Row(plane, 0), m_isBottomUp ? -Pitch(plane) : Pitch(plane)};
    return view;
  }

  /// Samples of more than 8 bits are 8 bits wide where they are written, and rounded to 8 where they are
  /// read.
  void Write(const PlanarFrame& frame);
  PlanarFrame Read();

  /// Whether nothing was written behind the rows.
  bool IsPaddingIntact();

  PlanarFrame bytes;

 private:
  std::ptrdiff_t RowBytes(std::size_t plane) const {
    return std::ptrdiff_t{m_format.PlaneWidth(static_cast<int>(plane))} * m_format.BytesPerSample();
  }
  std::ptrdiff_t Pitch(std::size_t plane) const { return RowBytes(plane) + m_padding; }
  std::uint8_t* Row(std::size_t plane, std::int32_t row) {
    const std::int32_t last = m_format.PlaneHeight(static_cast<int>(plane)) - 1;
    return bytes[plane].data() + (m_isBottomUp ? last - row : row) * Pitch(plane);
  }
  /// `visit(plane, row)` for the memory of each row, top row first.
  template <class Visit>
  void ForRows(const Visit& visit) {
    for (std::size_t plane = 0; plane < bytes.size(); ++plane)
      for (std::int32_t row = 0; !bytes[plane].empty() && row < m_format.PlaneHeight(static_cast<int>(plane));
           ++row)
        visit(plane, Row(plane, row));
  }

  precise::PictureFormat m_format;
  bool m_isBottomUp;
  std::ptrdiff_t m_padding;
  std::uint8_t m_fill;
};

/// What a frame shows, and how it was taken.
struct Take {
  precise::Similarity pose = {};  ///< where the scene's content stands
  std::uint32_t scene = 1;        ///< its number; scene 0 is flat
  double contrast = 1, gain = 1, offset = 0;
  double noise = 0;             ///< sigma, in sample steps
  std::uint32_t noiseSeed = 1;  ///< another noise for another frame
  double foreground = 0;        ///< share of the columns, from the left, that another scene hides
  precise::Similarity foregroundPose = {};
};

/// The pose of content that is moved by x samples to the right and y rows down, and turned clockwise about
/// the picture's centre.
precise::Similarity MakePose(double x, double y, double degrees = 0, double zoom = 1);

/// Where a sample of the plane lies, in the coordinates of `Similarity`.
precise::Complex PlaceOf(const precise::PictureFormat& format, int plane, std::int32_t column,
                         std::int32_t row);

/// Takes a frame, the same bytes on every machine. The scene has detail at several scales, the finest of 10
/// samples a period, and values of 16 to 240 where there is no noise. All planes show it but alpha, which is
/// 200.
PlanarFrame Shoot(const precise::PictureFormat& format, const Take& take);
