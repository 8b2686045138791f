#include <cmath>
#include <gtest/gtest.h>

#include "precise/run.h"
#include "precise/similarity.h"
#include "scenes/scene.h"

namespace precise {
namespace {

constexpr PictureFormat kFormats[] = {
    {.planes = 1},
    {.planes = 2},
    {.planes = 3},
    {.planes = 3, .chromaShiftX = 1, .chromaShiftY = 1, .chromaSiteY = 0.5},
    {.planes = 3, .chromaShiftX = 2, .chromaSiteX = 1.5, .pixelAspect = 2},
    {.planes = 4, .chromaShiftX = 1},
};

constexpr std::array<std::uint8_t, kMaxPlanes> kBackground = {9, 8, 7, 6};

/// What comes out for a still camera's frame with margins that do not magnify it: the frame without its
/// margins, or with a border over them.
PlanarFrame Clipped(const PictureFormat& format, const Settings& settings, const PlanarFrame& frame) {
  const PictureFormat shown = OutputFormat(format, settings);
  const bool isCrop = settings.clipping == Clipping::Crop;
  PlanarFrame out;
  for (int plane = 0; plane < format.planes; ++plane) {
    const auto index = static_cast<std::size_t>(plane);
    const std::int32_t width = format.PlaneWidth(plane), height = format.PlaneHeight(plane);
    const int shiftX = format.IsChroma(plane) ? format.chromaShiftX : 0;
    const int shiftY = format.IsChroma(plane) ? format.chromaShiftY : 0;
    const std::int32_t left = isCrop ? (format.width - shown.width) / 2 >> shiftX : 0;
    const std::int32_t top = isCrop ? (format.height - shown.height) / 2 >> shiftY : 0;
    for (std::int32_t row = top; row < top + shown.PlaneHeight(plane); ++row) {
      for (std::int32_t column = left; column < left + shown.PlaneWidth(plane); ++column) {
        // A border covers a chroma sample when it covers one of its luma columns or rows.
        const auto covers = [](std::int32_t i, std::int32_t count, int shift, double margin) {
          return std::min(i, count - 1 - i) << shift < margin;
        };
        const bool isBorder = !isCrop && (covers(column, width, shiftX, settings.marginX) ||
                                          covers(row, height, shiftY, settings.marginY));
        const std::uint8_t uncovered = format.IsAlpha(plane) ? std::uint8_t{0} : kBackground[index];
        out[index].push_back(isBorder ? uncovered
                                      : frame[index][static_cast<std::size_t>(row * width + column)]);
      }
    }
  }
  return out;
}

TEST(Stream, GivesAStillCamerasFramesBack) {
  struct Size {
    std::int32_t width, height, marginX, marginY;
  };
  constexpr Size kSizes[] = {{1, 1, 0, 0}, {3, 2, 0, 0}, {17, 5, 3, 1}, {33, 33, 5, 6}, {50, 37, 4, 9}};
  constexpr std::size_t kCounts[] = {0, 1, 2, 7};
  unsigned turn = 0;
  for (PictureFormat format : kFormats) {
    for (const Size& size : kSizes) {
      for (const std::size_t count : kCounts) {
        for (const Clipping clipping : {Clipping::Crop, Clipping::Outline}) {
          ++turn;
          format.width = size.width;
          format.height = size.height;
          format.bitsPerSample = turn % 3 == 0 ? 8 : turn % 3 == 1 ? 10 : 16;
          Settings settings = {.window = turn % 5 == 0 ? 256 : 2,
                               .marginX = static_cast<double>(size.marginX),
                               .marginY = static_cast<double>(size.marginY),
                               .clipping = clipping,
                               .interpolation = static_cast<Interpolation>(turn / 3 % 3),
                               .keepBackground = turn % 7 == 0};
          for (std::size_t i = 0; i < kBackground.size(); ++i)
            settings.background[i] = static_cast<std::uint16_t>(kBackground[i] << (format.bitsPerSample - 8));
          if (!AreUsable(format, settings)) settings.marginX = settings.marginY = 0;
          SCOPED_TRACE(testing::Message()
                       << format.planes << " planes, shifts " << format.chromaShiftX << format.chromaShiftY
                       << ", " << size.width << "x" << size.height << ", " << count << " frames, clipping "
                       << static_cast<int>(clipping) << ", interpolation " << turn / 3 % 3 << ", "
                       << format.bitsPerSample << " bits");
          PlanarFrame frame;
          for (int plane = 0; plane < format.planes; ++plane)
            frame[static_cast<std::size_t>(plane)] = RandomBytes(
                static_cast<std::size_t>(format.PlaneWidth(plane) * format.PlaneHeight(plane)), turn);
          const Outcome run =
              Stabilize(format, settings, std::vector(count, frame), {.bottomUp = turn % 2 == 0});
          const PlanarFrame expected = Clipped(format, settings, frame);
          for (const PlanarFrame& out : run.frames) EXPECT_TRUE(out == expected);
          for (const FrameReport& report : run.reports)
            EXPECT_EQ(Length({report.motion.x, report.motion.y}), 0);
        }
      }
    }
  }
}

TEST(Stream, HoldsTheLongestWindow) {
  const EndlessClip<PlanarFrame> clip(ShootAll(kSmall420, ShakyTakes(std::string(6, 'a'))));
  std::vector<PlanarFrame> frames;
  for (std::size_t i = 0; i < 300; ++i) frames.push_back(clip[i]);
  const Settings settings = {.window = 256, .marginX = 3, .marginY = 3};
  EXPECT_EQ(Stabilize(kSmall420, settings, frames).reports.back().shot, 0);
}

TEST(Stream, RefusesWhatItCannotStabilize) {
  const PictureFormat format = {
      .width = 64, .height = 48, .planes = 3, .chromaShiftX = 1, .chromaShiftY = 1, .pixelAspect = 16};
  const Settings settings = {
      .window = 256, .marginX = 31, .marginY = 23, .estimateFrom = Rect{-9, 47, 1, 99}};
  Settings weighted = settings;
  weighted.pathWeights.assign(129, 1.0);
  EXPECT_TRUE(AreUsable(format, settings) && AreUsable(format, weighted));
  const auto expectRefused = [](const auto& good, auto isUsable, auto... rows) {
    const auto expectEach = [&](const auto& row) {
      const auto& [member, values] = row;
      for (const auto& value : values) {
        auto spoilt = good;
        spoilt.*member = value;
        EXPECT_FALSE(isUsable(spoilt)) << "row with " << testing::PrintToString(value);
      }
    };
    (expectEach(rows), ...);
  };
  using Values = std::vector<double>;
  using Numbers = std::vector<std::int32_t>;
  expectRefused(
      format, [&](const PictureFormat& spoilt) { return AreUsable(spoilt, settings); },
      std::pair(&PictureFormat::width, Numbers{0, 32768}),
      std::pair(&PictureFormat::height, Numbers{0, 32768}), std::pair(&PictureFormat::planes, Numbers{0, 5}),
      std::pair(&PictureFormat::bitsPerSample, Numbers{7, 17}),
      std::pair(&PictureFormat::chromaShiftX, Numbers{-1, 3}),
      std::pair(&PictureFormat::chromaShiftY, Numbers{-1, 3}),
      std::pair(&PictureFormat::chromaSiteX, Values{5, NAN}),
      std::pair(&PictureFormat::chromaSiteY, Values{5, NAN}),
      std::pair(&PictureFormat::pixelAspect, Values{0, 17, NAN}));
  expectRefused(
      settings, [&](const Settings& spoilt) { return AreUsable(format, spoilt); },
      std::pair(&Settings::window, Numbers{0, 5, 258}), std::pair(&Settings::marginX, Values{-1, 31.75, NAN}),
      std::pair(&Settings::marginY, Values{-1, 24, NAN}),
      std::pair(&Settings::estimateFrom, std::vector<Rect>{{64, 0, 90, 40}, {0, 30, 20, 10}}),
      std::pair(&Settings::pathWeights, std::vector<Values>{{1, 1}}));
}

std::uint64_t Fnv1a(std::span<const PlanarFrame> frames) {
  std::uint64_t digest = 14695981039346656037U;
  for (const PlanarFrame& frame : frames)
    for (const std::vector<std::uint8_t>& plane : frame)
      for (const std::uint8_t sample : plane) digest = (digest ^ sample) * 1099511628211U;
  return digest;
}

void FromTheLast(std::int32_t rows, RowWork work, const void* context) {
  for (std::int32_t end = rows; end > 0; end -= std::min(end, 7)) work(context, std::max(end - 7, 0), end);
}

/// The bytes are the same with every compiler and on every machine. Whoever changes the engine's output
/// changes these numbers.
TEST(Stream, BytesAreThese) {
  struct DigestCase {
    Settings settings;
    std::uint64_t digest;
  };
  const DigestCase kCases[] = {
      {{.window = 8}, 14764298449670128809U},
      {{.window = 8, .marginX = 4, .marginY = 3, .interpolation = Interpolation::Bilinear},
       16912059577666543479U},
      {{.window = 4, .marginX = 5, .marginY = 5, .clipping = Clipping::Crop, .tripod = true},
       5713447428545100831U},
      {{.window = 8, .interpolation = Interpolation::Nearest, .correctRoll = false, .keepBackground = true},
       2445520182962496266U},
  };
  const std::vector<PlanarFrame> frames = ShootAll(kSmall420, ShakyTakes("aaaaaaaaWaaaabbbbbbb"));
  for (const DigestCase& test : kCases) {
    for (const Way& way :
         {Way{.cap = SimdLevel::Scalar}, Way{.cap = SimdLevel::Avx2}, Way{.runner = FromTheLast}})
      EXPECT_EQ(Fnv1a(Stabilize(kSmall420, test.settings, frames, way).frames), test.digest)
          << "case " << &test - kCases << ", level " << static_cast<int>(way.cap);
  }
}

}  // namespace
}  // namespace precise
