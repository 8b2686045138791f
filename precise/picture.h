#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace precise {

/// The most planes that a picture has: luma, two of chroma, alpha.
inline constexpr int kMaxPlanes = 4;
/// The most planes that are co-sited, that is, have their samples at the same places: luma and alpha, or both
/// of chroma.
inline constexpr int kMaxCositedPlanes = 2;

/// Limits of what can be stabilized. Pixel aspects go down to 1 / kLargestPixelAspect.
inline constexpr std::int32_t kLargestSide = 32767;
inline constexpr double kLargestPixelAspect = 16;

/// The planes of a picture and what their samples mean. Motion is measured on plane 0: luma, grey or green.
struct PictureFormat {
  std::int32_t width = 0, height = 0;  ///< of plane 0, in samples
  int planes = 1;                      ///< 1 grey, 2 grey and alpha, 3 colour, 4 colour and alpha
  int bitsPerSample = 8;               ///< 8 to 16
  /// Planes 1 and 2 have one sample for 2^shift columns and rows of luma; 0 to 2.
  int chromaShiftX = 0, chromaShiftY = 0;
  /// How far the first chroma sample is to the right of and below the first luma sample, in luma samples; -4
  /// to 4.
  double chromaSiteX = 0, chromaSiteY = 0;
  double pixelAspect = 1;  ///< width over height of a displayed pixel

  int BytesPerSample() const { return bitsPerSample > 8 ? 2 : 1; }
  bool HasAlpha() const { return planes == 2 || planes == 4; }
  bool IsChroma(int plane) const { return planes >= 3 && (plane == 1 || plane == 2); }
  bool IsAlpha(int plane) const { return HasAlpha() && plane == planes - 1; }

  /// The numbers of both chroma planes, or of luma and alpha. -1 stands for an absent plane.
  std::array<int, kMaxCositedPlanes> CositedPlanes(bool isChroma) const {
    if (isChroma) return {planes >= 3 ? 1 : -1, planes >= 3 ? 2 : -1};
    return {0, HasAlpha() ? planes - 1 : -1};
  }

  /// Chroma sizes are rounded up: the last sample may stand for fewer columns or rows of luma.
  std::int32_t PlaneWidth(int plane) const {
    return IsChroma(plane) ? (width + (1 << chromaShiftX) - 1) >> chromaShiftX : width;
  }
  std::int32_t PlaneHeight(int plane) const {
    return IsChroma(plane) ? (height + (1 << chromaShiftY) - 1) >> chromaShiftY : height;
  }
};

/// Samples of one plane. `data` is the top row; each next row begins `strideBytes` later, which may be
/// negative. A sample is a byte, or with more than 8 bits a 16-bit word in the machine's byte order.
template <class Byte>
struct PlaneOf {
  Byte* data = nullptr;
  std::ptrdiff_t strideBytes = 0;
};

using ConstPicture = std::array<PlaneOf<const std::uint8_t>, kMaxPlanes>;
using Picture = std::array<PlaneOf<std::uint8_t>, kMaxPlanes>;

}  // namespace precise
