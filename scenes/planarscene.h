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

  /// True while nothing was written behind the rows.
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

/// The content of a frame, and the camera and exposure that take it.
struct Take {
  precise::Similarity pose = {};  ///< of the scene's content in the frame
  std::uint32_t scene = 1;        ///< number of the scene; 0 is a flat one
  double contrast = 1, gain = 1, offset = 0;
  double noise = 0;  ///< sigma, in sample steps
  std::uint32_t noiseSeed = 1;
  double foreground = 0;  ///< share of the columns, from the left, where another scene hides this one
  precise::Similarity foregroundPose = {};
};

/// The pose of content that is magnified and turned about the picture's centre (degrees clockwise, as shown),
/// and then moved by x samples to the right and y rows down.
precise::Similarity MakePose(double x, double y, double degrees = 0, double zoom = 1);

/// The place of a sample of the plane in the coordinates of `Similarity`.
precise::Complex PlaceOf(const precise::PictureFormat& format, int plane, std::int32_t column,
                         std::int32_t row);

/// Takes a frame. The scene has detail at several scales, with periods of 10 samples and more. Without noise
/// its values are 16 to 240. All planes show it but alpha, which is 200. The bytes are the same on every
/// machine.
PlanarFrame Shoot(const precise::PictureFormat& format, const Take& take);
