#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>

/// Bytes per pixel: blue, green, red.
inline constexpr int kBytesPerPixel = 3;

/// Geometry of a padded bottom-up frame: memory row 0 is the bottom row of the picture, and each row is
/// padded to a multiple of 4 bytes.
struct FrameGeometry {
  std::int32_t width = 0, height = 0;
  std::ptrdiff_t strideBytes = 0;

  FrameGeometry() = default;
  FrameGeometry(std::int32_t frameWidth, std::int32_t frameHeight)
      : width(frameWidth),
        height(frameHeight),
        strideBytes((frameWidth * std::int64_t{kBytesPerPixel} + 3) / 4 * 4) {}

  std::ptrdiff_t SizeBytes() const { return strideBytes * height; }
  std::ptrdiff_t Offset(std::int32_t column, std::int32_t row) const {
    return row * strideBytes + column * std::ptrdiff_t{kBytesPerPixel};
  }
};

/// Up to this side, all fixed-point positions in a frame and their intermediate sums fit 63 bits.
inline constexpr std::int32_t kMaxFrameSide = 1 << 23;

/// Whether both sides are 1 … `kMaxFrameSide` pixels and the frame has at most 2^31 - 1 bytes.
inline bool IsFrameSizeUsable(std::int32_t width, std::int32_t height) {
  return width > 0 && width <= kMaxFrameSide && height > 0 && height <= kMaxFrameSide &&
         FrameGeometry(width, height).SizeBytes() <= std::numeric_limits<std::int32_t>::max();
}

/// Bytes from one row to the next of a cropped frame of `width` pixels. For odd widths this differs from the
/// stride of `FrameGeometry`; programs that read cropped frames rely on that.
constexpr std::ptrdiff_t PackedCropPitch(std::int32_t width) {
  return std::ptrdiff_t{width} * kBytesPerPixel + (4 - std::ptrdiff_t{width} * 9 % 4) % 4;
}
