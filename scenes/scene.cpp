#include "scenes/scene.h"

#include <algorithm>
#include <cmath>
#include <random>

#include "kernel/sampling.h"
#include "kernel/sinecosine.h"

namespace {

/// Adds noise with detail `cell` pixels wide and values of 0 to `strength` in each colour.
void AddDetail(std::vector<std::uint8_t>& pixels, const FrameGeometry& canvas, std::int32_t cell,
               int strength, std::mt19937& random) {
  const std::int32_t columns = canvas.width / cell + 2, rows = canvas.height / cell + 2;
  std::vector<int> lattice(static_cast<std::size_t>(columns) * static_cast<std::size_t>(rows) *
                           kBytesPerPixel);
  for (int& value : lattice) value = static_cast<int>(random() % static_cast<unsigned>(strength + 1));

  const auto at = [&](std::int32_t column, std::int32_t row, int color) {
    return lattice[(static_cast<std::size_t>(row) * static_cast<std::size_t>(columns) +
                    static_cast<std::size_t>(column)) *
                       kBytesPerPixel +
                   static_cast<std::size_t>(color)];
  };
  for (std::int32_t y = 0; y < canvas.height; ++y) {
    for (std::int32_t x = 0; x < canvas.width; ++x) {
      const std::int32_t column = x / cell, row = y / cell, right = x % cell, up = y % cell;
      for (int color = 0; color < kBytesPerPixel; ++color) {
        const int lower = at(column, row, color) * (cell - right) + at(column + 1, row, color) * right;
        const int upper =
            at(column, row + 1, color) * (cell - right) + at(column + 1, row + 1, color) * right;
        std::uint8_t& byte = pixels[static_cast<std::size_t>(canvas.Offset(x, y) + color)];
        byte = static_cast<std::uint8_t>(byte + (lower * (cell - up) + upper * up) / (cell * cell));
      }
    }
  }
}

}  // namespace

Scene::Scene(FrameGeometry frame, std::int32_t margin, std::uint32_t seed)
    : m_frame(frame),
      m_canvas(frame.width + 2 * margin, frame.height + 2 * margin),
      m_margin(margin),
      m_pixels(static_cast<std::size_t>(m_canvas.SizeBytes())) {
  std::mt19937 random(seed);
  AddDetail(m_pixels, m_canvas, 48, 120, random);
  AddDetail(m_pixels, m_canvas, 12, 80, random);
  AddDetail(m_pixels, m_canvas, 4, 55, random);
}

std::vector<std::uint8_t> Scene::Shoot(const CameraPose& pose) const {
  std::vector<std::uint8_t> frame(static_cast<std::size_t>(m_frame.SizeBytes()));
  const SineCosine angle = ComputeSineCosine(RadiansFromDegrees(pose.degrees));
  const double centreX = (m_frame.width - 1) / 2.0, centreY = (m_frame.height - 1) / 2.0;
  for (std::int32_t row = 0; row < m_frame.height; ++row) {
    for (std::int32_t column = 0; column < m_frame.width; ++column) {
      const double right = column - centreX, up = row - centreY;
      const double x = m_margin + pose.x + centreX + right * angle.cosine - up * angle.sine;
      const double y = m_margin + pose.y + centreY + right * angle.sine + up * angle.cosine;
      const auto wholeX = std::clamp(static_cast<std::int32_t>(x), 0, m_canvas.width - 2);
      const auto wholeY = std::clamp(static_cast<std::int32_t>(y), 0, m_canvas.height - 2);
      const double partX = std::clamp(x - wholeX, 0.0, 1.0), partY = std::clamp(y - wholeY, 0.0, 1.0);
      const std::uint8_t* const lower = m_pixels.data() + m_canvas.Offset(wholeX, wholeY);
      const std::uint8_t* const upper = lower + m_canvas.strideBytes;
      std::uint8_t* const out = frame.data() + m_frame.Offset(column, row);
      for (int color = 0; color < kBytesPerPixel; ++color) {
        const double low = lower[color] + (lower[color + kBytesPerPixel] - lower[color]) * partX;
        const double high = upper[color] + (upper[color + kBytesPerPixel] - upper[color]) * partX;
        out[color] = static_cast<std::uint8_t>(std::lround(low + (high - low) * partY));
      }
    }
  }
  return frame;
}

std::vector<std::uint8_t> RandomBytes(std::size_t count, std::uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<std::uint8_t> bytes(count);
  for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(random());
  return bytes;
}

CameraPose ShakyPose(int frameNumber) {
  const auto tremble = [frameNumber](unsigned salt) {
    std::mt19937 random(static_cast<unsigned>(frameNumber) * 7919U + salt);
    return static_cast<double>(random() % 2001) / 1000.0 - 1.0;
  };
  return {0.25 * frameNumber + 4 * tremble(1), 3 * tremble(2), 0.6 * tremble(3)};
}

std::vector<std::vector<std::uint8_t>> ShakyFrames(FrameGeometry frame, int count) {
  const Scene scene(frame, 24);
  std::vector<std::vector<std::uint8_t>> frames;
  for (int i = 0; i < count; ++i) frames.push_back(scene.Shoot(ShakyPose(i)));
  return frames;
}
