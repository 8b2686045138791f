#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace precise {

/// Planes of a picture at most: luma, two of chroma, alpha.
inline constexpr int kMaxPlanes = 4;
/// Planes of it that have their samples at the same places: luma and alpha, or chroma.
inline constexpr int kMaxAlikePlanes = 2;

/// Sides and pixel aspects that can be stabilized: an aspect may also be 1 / kLargestPixelAspect.
inline constexpr std::int32_t kLargestSide = 32767;
inline constexpr double kLargestPixelAspect = 16;

/// How the planes of a picture lie. Plane 0 is luma (or grey, or green): motion is measured there.
struct PictureFormat {
  std::int32_t width = 0, height = 0;  ///< of plane 0, in samples
  int planes = 1;                      ///< 1 grey, 2 grey and alpha, 3 colour, 4 colour and alpha
  int bitsPerSample = 8;
  int chromaShiftX = 0, chromaShiftY = 0;  ///< planes 1 and 2 have a sample for 2^shift columns and rows
  /// Where the first chroma sample lies, in luma samples to the right of and below the first luma sample.
  double chromaSiteX = 0, chromaSiteY = 0;
  double pixelAspect = 1;  ///< width of a pixel as it is shown, over its height

  int BytesPerSample() const { return bitsPerSample > 8 ? 2 : 1; }
  bool HasAlpha() const { return planes == 2 || planes == 4; }
  bool IsChroma(int plane) const { return planes >= 3 && (plane == 1 || plane == 2); }
  bool IsAlpha(int plane) const { return HasAlpha() && plane == planes - 1; }

  /// Luma and alpha, or chroma. Absent planes are -1.
  std::array<int, kMaxAlikePlanes> AlikePlanes(bool isChroma) const {
    if (isChroma) return {planes >= 3 ? 1 : -1, planes >= 3 ? 2 : -1};
    return {0, HasAlpha() ? planes - 1 : -1};
  }

  /// Chroma covers an odd last column or row with a sample of its own.
  std::int32_t PlaneWidth(int plane) const {
    return IsChroma(plane) ? (width + (1 << chromaShiftX) - 1) >> chromaShiftX : width;
  }
  std::int32_t PlaneHeight(int plane) const {
    return IsChroma(plane) ? (height + (1 << chromaShiftY) - 1) >> chromaShiftY : height;
  }
};

/// Samples of one plane: rows of `strideBytes` (which may be negative), top row first. A sample is a byte, or
/// with more than 8 bits a 16-bit word in the machine's order.
template <class Byte>
struct PlaneOf {
  Byte* data = nullptr;
  std::ptrdiff_t strideBytes = 0;
};

using ConstPicture = std::array<PlaneOf<const std::uint8_t>, kMaxPlanes>;
using Picture = std::array<PlaneOf<std::uint8_t>, kMaxPlanes>;

}  // namespace precise
