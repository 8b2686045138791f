#pragma once

#include <cstdint>
#include <cstdio>
#include <vector>

/// A YUV4MPEG2 stream of 8-bit 4:2:0 frames, and the frame read last.
class Video {
 public:
  /// Reads the stream's header. False when it is not YUV4MPEG2, or has another sample format.
  bool Open(std::FILE* file);

  /// False at the end of the stream, and where it is damaged.
  bool ReadFrame();

  int Width() const { return m_width; }
  int Height() const { return m_height; }
  const std::uint8_t* Luma(int y) const { return &m_luma[At(y, m_width, 0)]; }

  /// The chroma samples that cover a pixel.
  std::uint8_t U(int x, int y) const { return m_u[At(y / 2, (m_width + 1) / 2, x / 2)]; }
  std::uint8_t V(int x, int y) const { return m_v[At(y / 2, (m_width + 1) / 2, x / 2)]; }

 private:
  static std::size_t At(int y, int width, int x) {
    return static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x);
  }

  std::FILE* m_file = nullptr;
  int m_width = 0, m_height = 0;
  std::vector<std::uint8_t> m_luma, m_u, m_v;
};
