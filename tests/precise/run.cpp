#include "precise/run.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>

#include "support/guardedbuffer.h"
#include "support/scene.h"

namespace precise {
namespace {

/// Planes of a picture, with padding after each row and rows in either order. Samples of more than 8 bits
/// are 8 bits wide where they are written, and rounded to 8 where they are read.
class Planes {
 public:
  Planes(const PictureFormat& format, bool bottomUp) : m_format(format), m_bottomUp(bottomUp) {
    for (int plane = 0; plane < format.planes; ++plane)
      m_buffers.emplace_back(std::vector<std::uint8_t>(
          static_cast<std::size_t>(Pitch(plane) * format.PlaneHeight(plane)), kPaddingMark));
  }

  template <class Byte>
  std::array<PlaneOf<Byte>, kMaxPlanes> View() {
    std::array<PlaneOf<Byte>, kMaxPlanes> view;
    for (int plane = 0; plane < m_format.planes; ++plane)
      view[static_cast<std::size_t>(plane)] = {Row(plane, 0), m_bottomUp ? -Pitch(plane) : Pitch(plane)};
    return view;
  }

  void Write(const PlanarFrame& frame) {
    for (int plane = 0; plane < m_format.planes; ++plane) {
      const std::uint8_t* from = frame[static_cast<std::size_t>(plane)].data();
      for (std::int32_t row = 0; row < m_format.PlaneHeight(plane); ++row)
        for (std::int32_t column = 0; column < m_format.PlaneWidth(plane); ++column) {
          const auto sample = static_cast<std::uint16_t>(*from++ << (m_format.bitsPerSample - 8));
          std::memcpy(Row(plane, row) + column * Bytes(), &sample, static_cast<std::size_t>(Bytes()));
        }
    }
  }

  PlanarFrame Read() {
    PlanarFrame frame;
    const int one = 1 << (m_format.bitsPerSample - 8);
    for (int plane = 0; plane < m_format.planes; ++plane) {
      EXPECT_TRUE(m_buffers[static_cast<std::size_t>(plane)].GuardsIntact());
      for (std::int32_t row = 0; row < m_format.PlaneHeight(plane); ++row) {
        const std::uint8_t* const end = Row(plane, row) + m_format.PlaneWidth(plane) * Bytes();
        for (const std::uint8_t* from = Row(plane, row); from < end; from += Bytes()) {
          std::uint16_t sample = 0;
          std::memcpy(&sample, from, static_cast<std::size_t>(Bytes()));
          frame[static_cast<std::size_t>(plane)].push_back(
              static_cast<std::uint8_t>(std::min((2 * sample + one) / (2 * one), 255)));
        }
        EXPECT_EQ(std::count(end, end + kPadding, kPaddingMark), kPadding)
            << "plane " << plane << " row " << row;
      }
    }
    return frame;
  }

 private:
  static constexpr std::ptrdiff_t kPadding = 6;
  static constexpr std::uint8_t kPaddingMark = 0x5A;

  std::ptrdiff_t Bytes() const { return m_format.BytesPerSample(); }
  std::ptrdiff_t Pitch(int plane) const { return m_format.PlaneWidth(plane) * Bytes() + kPadding; }
  std::uint8_t* Row(int plane, std::int32_t row) {
    const std::int32_t inMemory = m_bottomUp ? m_format.PlaneHeight(plane) - 1 - row : row;
    return m_buffers[static_cast<std::size_t>(plane)].Data() + inMemory * Pitch(plane);
  }

  PictureFormat m_format;
  bool m_bottomUp;
  std::vector<GuardedBuffer> m_buffers;
};

}  // namespace

Outcome Stabilize(const PictureFormat& format, const Settings& settings, std::span<const PlanarFrame> frames,
                  const Way& way) {
  EXPECT_TRUE(AreUsable(format, settings));
  CStabilizer stabilizer(format, settings, way.cap, way.runner);
  const auto delay = static_cast<std::size_t>(stabilizer.DelayFrames());
  std::vector<Planes> lent;
  Outcome run;
  const auto deliver = [&] {
    Planes out(OutputFormat(format, settings), way.bottomUp);
    run.reports.push_back(stabilizer.Deliver(out.View<std::uint8_t>()));
    EXPECT_EQ(run.reports.back().frame, static_cast<std::int64_t>(run.frames.size()));
    lent[run.frames.size()] = Planes(format, way.bottomUp);
    run.frames.push_back(out.Read());
  };
  for (const PlanarFrame& frame : frames) {
    EXPECT_FALSE(stabilizer.CanDeliver());
    lent.emplace_back(format, way.bottomUp).Write(frame);
    stabilizer.Push(lent.back().View<const std::uint8_t>());
    EXPECT_EQ(stabilizer.CanDeliver(), lent.size() > delay);
    if (stabilizer.CanDeliver()) deliver();
  }
  stabilizer.End();
  while (stabilizer.CanDeliver() && run.frames.size() < frames.size()) deliver();
  EXPECT_FALSE(stabilizer.CanDeliver());
  EXPECT_EQ(run.frames.size(), frames.size());
  return run;
}

void ExpectSame(const Outcome& expected, std::size_t expectedFirst, const Outcome& actual,
                std::size_t actualFirst, std::size_t count) {
  const auto numbers = [](const FrameReport& report) {
    return std::array{report.motion.x,     report.motion.y,     report.motion.roll,    report.zoom,
                      report.correction.x, report.correction.y, report.correction.roll};
  };
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t one = expectedFirst + i, other = actualFirst + i;
    EXPECT_EQ(numbers(expected.reports[one]), numbers(actual.reports[other])) << "frame " << one;
    EXPECT_TRUE(expected.frames[one] == actual.frames[other]) << "frame " << one;
  }
}

std::vector<Take> ShakyTakes(std::string_view scenes, double amplitude) {
  std::vector<Take> takes;
  for (const char letter : scenes) {
    const CameraPose pose = ShakyPose(static_cast<int>(takes.size()));
    Take take = {.pose = MakePose(amplitude / 4 * pose.x, amplitude / 4 * pose.y, pose.degrees),
                 .scene = static_cast<std::uint32_t>(letter),
                 .noiseSeed = static_cast<std::uint32_t>(takes.size())};
    if (letter == 'W' || letter == 'K') take.scene = 0, take.offset = letter == 'W' ? 127 : -128;
    takes.push_back(take);
  }
  return takes;
}

std::vector<PlanarFrame> ShootAll(const PictureFormat& format, std::span<const Take> takes) {
  std::vector<PlanarFrame> frames;
  for (const Take& take : takes) frames.push_back(Shoot(format, take));
  return frames;
}

}  // namespace precise
