#include "scenes/planarscene.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>

#include "kernel/sampling.h"
#include "kernel/sinecosine.h"
#include "scenes/spline.h"

namespace {

using precise::Complex;
using precise::PictureFormat;
using precise::Similarity;

/// Random values on a repeating lattice, interpolated by cubic B-splines.
class Texture {
 public:
  Texture(double cell, double strength, std::uint32_t seed) : m_cell(cell), m_values(kSide * kSide) {
    std::mt19937 random(seed);
    for (double& value : m_values) value = strength * (static_cast<double>(random() % 2001) / 1000 - 1);
  }

  double operator()(Complex point) const {
    const double x = point.re / m_cell, y = point.im / m_cell;
    const double wholeX = std::floor(x), wholeY = std::floor(y);
    const std::array<double, 4> across = SplineWeights(x - wholeX), down = SplineWeights(y - wholeY);
    // Whole periods are added so that indices are not negative.
    const auto column = static_cast<std::size_t>(wholeX + 1000 * kSide);
    const auto row = static_cast<std::size_t>(wholeY + 1000 * kSide);
    double sum = 0;
    for (std::size_t i = 0; i < 4; ++i)
      for (std::size_t j = 0; j < 4; ++j)
        sum += down[i] * across[j] * m_values[(row + i) % kSide * kSide + (column + j) % kSide];
    return sum;
  }

 private:
  static constexpr std::size_t kSide = 64;

  double m_cell;
  std::vector<double> m_values;
};

class Brightness {
 public:
  explicit Brightness(std::uint32_t scene)
      : m_textures{Texture(40, 80, 3 * scene), Texture(13, 60, 3 * scene + 1), Texture(5, 50, 3 * scene + 2)},
        m_isFlat(scene == 0) {}

  double operator()(Complex point) const {
    if (m_isFlat) return 128;
    return std::clamp(128 + m_textures[0](point) + m_textures[1](point) + m_textures[2](point), 16.0, 240.0);
  }

 private:
  std::array<Texture, 3> m_textures;
  bool m_isFlat;
};

/// Approximately normal noise with a standard deviation of 1: a sum of uniform numbers.
double Noise(std::mt19937& random) {
  double sum = -6;
  for (int i = 0; i < 12; ++i) sum += static_cast<double>(random()) / 4294967296.0;
  return sum;
}

}  // namespace

Similarity MakePose(double x, double y, double degrees, double zoom) {
  const SineCosine angle = ComputeSineCosine(RadiansFromDegrees(degrees));
  return {zoom * Complex{angle.cosine, angle.sine}, {x, y}};
}

Complex PlaceOf(const PictureFormat& format, int plane, std::int32_t column, std::int32_t row) {
  double x = column, y = row;
  if (format.IsChroma(plane)) {
    x = x * (1 << format.chromaShiftX) + format.chromaSiteX;
    y = y * (1 << format.chromaShiftY) + format.chromaSiteY;
  }
  return {(x - (format.width - 1) / 2.0) * format.pixelAspect, y - (format.height - 1) / 2.0};
}

PlanarBuffer::PlanarBuffer(const PictureFormat& format, bool isBottomUp, std::ptrdiff_t padding,
                           std::uint8_t fill)
    : m_format(format), m_isBottomUp(isBottomUp), m_padding(padding), m_fill(fill) {
  for (std::size_t plane = 0; plane < static_cast<std::size_t>(format.planes); ++plane)
    bytes[plane].resize(static_cast<std::size_t>(Pitch(plane) * format.PlaneHeight(static_cast<int>(plane))),
                        fill);
}

void PlanarBuffer::Write(const PlanarFrame& frame) {
  std::array<std::size_t, precise::kMaxPlanes> next = {};
  const auto step = static_cast<std::size_t>(m_format.BytesPerSample());
  ForRows([&](std::size_t plane, std::uint8_t* row) {
    for (const std::uint8_t* const end = row + RowBytes(plane); row < end; row += step) {
      const auto sample =
          static_cast<std::uint16_t>(frame[plane][next[plane]++] << (m_format.bitsPerSample - 8));
      std::memcpy(row, &sample, step);
    }
  });
}

PlanarFrame PlanarBuffer::Read() {
  PlanarFrame frame;
  const auto step = static_cast<std::size_t>(m_format.BytesPerSample());
  const int one = 1 << (m_format.bitsPerSample - 8);
  ForRows([&](std::size_t plane, const std::uint8_t* row) {
    for (const std::uint8_t* const end = row + RowBytes(plane); row < end; row += step) {
      std::uint16_t sample = 0;
      std::memcpy(&sample, row, step);
      frame[plane].push_back(static_cast<std::uint8_t>(std::min((2 * sample + one) / (2 * one), 255)));
    }
  });
  return frame;
}

bool PlanarBuffer::IsPaddingIntact() {
  bool isIntact = true;
  ForRows([&](std::size_t plane, const std::uint8_t* row) {
    isIntact &= std::count(row + RowBytes(plane), row + Pitch(plane), m_fill) == m_padding;
  });
  return isIntact;
}

PlanarFrame Shoot(const PictureFormat& format, const Take& take) {
  const Brightness behind(take.scene), before(take.scene + 1000);
  const Similarity toScene = Inverse(take.pose), toForeground = Inverse(take.foregroundPose);
  std::mt19937 random(take.noiseSeed);
  PlanarFrame frame;
  for (int plane = 0; plane < format.planes; ++plane) {
    for (std::int32_t row = 0; row < format.PlaneHeight(plane); ++row) {
      for (std::int32_t column = 0; column < format.PlaneWidth(plane); ++column) {
        const Complex point = PlaceOf(format, plane, column, row);
        const bool isHidden = point.re < (take.foreground - 0.5) * format.width * format.pixelAspect;
        double value = isHidden ? before(toForeground(point)) : behind(toScene(point));
        value = take.gain * (128 + take.contrast * (value - 128)) + take.offset;
        if (take.noise > 0) value += take.noise * Noise(random);
        if (format.IsAlpha(plane)) value = 200;
        frame[static_cast<std::size_t>(plane)].push_back(
            static_cast<std::uint8_t>(std::clamp(value + 0.5, 0.0, 255.0)));
      }
    }
  }
  return frame;
}
