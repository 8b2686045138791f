#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>

#include "precise/run.h"

namespace precise {
namespace {

Similarity MapOf(const Movement& movement, double aspect) {
  return {{std::cos(movement.roll), std::sin(movement.roll)}, {movement.x * aspect, movement.y}};
}

struct PictureCase {
  const char* name;
  PictureFormat format;
  Settings settings;
  double bound;  ///< mean difference
};

constexpr PictureFormat k420Left = {
    .width = 161, .height = 119, .planes = 3, .chromaShiftX = 1, .chromaShiftY = 1, .chromaSiteY = 0.5};
constexpr PictureFormat k420Centre = {.width = 160,
                                      .height = 120,
                                      .planes = 3,
                                      .bitsPerSample = 10,
                                      .chromaShiftX = 1,
                                      .chromaShiftY = 1,
                                      .chromaSiteX = 0.5,
                                      .chromaSiteY = 0.5};
constexpr PictureFormat k411 = {
    .width = 160, .height = 90, .planes = 4, .chromaShiftX = 2, .pixelAspect = 0.5};
constexpr PictureFormat kGreyAlpha = {.width = 120, .height = 160, .planes = 2, .pixelAspect = 2};

const PictureCase kPictureCases[] = {
    {"sited left", k420Left, {.marginX = 40, .marginY = 20}, 0.45},
    {"sited in the middle", k420Centre, {.marginX = 30, .marginY = 30}, 0.45},
    {"sited at the corner", k411, {.marginX = 40, .marginY = 11}, 0.45},
    {"cropped by odd margins", k420Centre, {.marginX = 15, .marginY = 11, .clipping = Clipping::Crop}, 0.45},
    {"cropped narrow pixels", k411, {.marginX = 14, .marginY = 9, .clipping = Clipping::Crop}, 0.45},
    {"wide pixels", kGreyAlpha, {.marginX = 10, .marginY = 20}, 0.45},
    {"bilinear", k420Left, {.marginX = 12, .marginY = 12, .interpolation = Interpolation::Bilinear}, 0.8},
    {"nearest", k420Left, {.marginX = 12, .marginY = 12, .interpolation = Interpolation::Nearest}, 3.0},
    {"a tripod", k420Left, {.marginX = 12, .marginY = 12, .tripod = true}, 0.45},
};

/// Compares each frame with what a camera would take at the corrected pose, magnified.
TEST(Picture, IsWhatTheCorrectedCameraWouldTake) {
  EXPECT_EQ(k420Left.PlaneWidth(1), 81) << "an odd column has chroma of its own";
  EXPECT_EQ(k420Left.PlaneHeight(1), 60);
  for (const PictureCase& test : kPictureCases) {
    const std::vector<Take> takes = ShakyTakes("aaaaaa", 6);
    Settings settings = test.settings;
    settings.window = 4;
    const Outcome run = Stabilize(test.format, settings, ShootAll(test.format, takes));
    const double width = test.format.width, height = test.format.height;
    const double zoom =
        settings.clipping == Clipping::Crop
            ? 1
            : std::min(width / (width - 2 * settings.marginX), height / (height - 2 * settings.marginY));
    const PictureFormat shown = OutputFormat(test.format, settings);
    for (std::size_t i = 0; i < takes.size(); ++i) {
      Take ideal = takes[i];
      const Similarity correction = MapOf(run.reports[i].correction, test.format.pixelAspect);
      ideal.pose = Compose({{zoom, 0}, {}}, Compose(correction, takes[i].pose));
      const PlanarFrame expected = Shoot(shown, ideal);
      for (std::size_t plane = 0; plane < static_cast<std::size_t>(shown.planes); ++plane) {
        double difference = 0;
        for (std::size_t k = 0; k < expected[plane].size(); ++k)
          difference += std::abs(expected[plane][k] - run.frames[i][plane][k]);
        EXPECT_LT(difference / static_cast<double>(expected[plane].size()), test.bound)
            << test.name << ", frame " << i << ", plane " << plane;
      }
    }
  }
}

constexpr std::uint8_t kBackground = 255;  // which the scene never has
constexpr Settings kUncovering = {.window = 4, .background = {255, 255, 255, 255}};

struct Counts {
  std::size_t uncovered = 0, wrong = 0;
};

/// Counts samples that the source does not cover. Of these, samples are wrong that differ from `beneath`; of
/// the others, those that show background.
Counts CountUncovered(const PictureFormat& format, int plane, const Movement& correction,
                      const std::vector<std::uint8_t>& shown, const std::vector<std::uint8_t>& beneath) {
  const Similarity toSource = Inverse(MapOf(correction, format.pixelAspect));
  const Complex first = PlaceOf(format, plane, 0, 0), next = PlaceOf(format, plane, 1, 1);
  const std::int32_t width = format.PlaneWidth(plane), height = format.PlaneHeight(plane);
  // Where the area ends that the plane's samples cover, in luma samples.
  const double right = width * (next.re - first.re) / format.pixelAspect,
               bottom = height * (next.im - first.im);
  Counts counts;
  for (std::int32_t row = 0; row < height; ++row) {
    for (std::int32_t column = 0; column < width; ++column) {
      const Complex source = toSource(PlaceOf(format, plane, column, row));
      const double x = source.re / format.pixelAspect + format.width / 2.0;
      const double y = source.im + format.height / 2.0;
      const double inside = std::min({x, y, right - x, bottom - y});
      if (std::abs(inside) < 0.01) continue;
      const auto i = static_cast<std::size_t>(row * width + column);
      counts.uncovered += inside < 0;
      counts.wrong +=
          inside < 0 ? shown[i] != beneath[i] : shown[i] == (format.IsAlpha(plane) ? 0 : kBackground);
    }
  }
  return counts;
}

TEST(Picture, ShowsBackgroundWhereNoSampleLies) {
  for (const PictureFormat& format : {k420Left, k420Centre, k411, kGreyAlpha}) {
    // What is kept of one shot never shows in the next, even where nothing covers it at once.
    for (const auto& [keep, skipped] : {std::pair(false, -1), {true, -1}, {true, 6}}) {
      Settings settings = kUncovering;
      settings.keepBackground = keep;
      for (std::uint16_t& value : settings.background)
        value = static_cast<std::uint16_t>(value << (format.bitsPerSample - 8));
      const Outcome run =
          Stabilize(format, settings, ShootAll(format, ShakyTakes("aaaaaabbbbb", 16)), {.skipped = skipped});
      for (int plane = 0; plane < format.planes; ++plane) {
        const auto index = static_cast<std::size_t>(plane);
        const std::vector<std::uint8_t> background(run.frames[0][index].size(),
                                                   format.IsAlpha(plane) ? 0 : kBackground);
        std::size_t uncovered = 0;
        for (std::size_t i = 0; i < run.frames.size(); ++i) {
          if (run.frames[i][0].empty()) continue;
          const bool isKept = keep && i > 0 && !run.frames[i - 1][0].empty() &&
                              run.reports[i].shot == run.reports[i - 1].shot;
          const Counts counts = CountUncovered(format, plane, run.reports[i].correction, run.frames[i][index],
                                               isKept ? run.frames[i - 1][index] : background);
          EXPECT_EQ(counts.wrong, 0U)
              << "plane " << plane << " of " << format.planes << ", frame " << i << ", keep " << keep;
          uncovered += counts.uncovered;
        }
        EXPECT_GT(uncovered, 100U);
      }
    }
  }
}

TEST(Picture, IsCoveredInsideTheMargins) {
  for (const PictureFormat& format : {k420Left, k411, kGreyAlpha}) {
    std::vector<Take> takes = ShakyTakes("aaaaaaaaaaaaaaaabbbbbb", 20);
    for (std::size_t i = 6; i < 16; ++i) takes[i].pose.shift.re += 12.0 * static_cast<double>(i - 6);
    const std::vector<PlanarFrame> frames = ShootAll(format, takes);
    for (Settings settings : {Settings{.clipping = Clipping::Stretch}, Settings{.clipping = Clipping::Crop},
                              Settings{.tripod = true}}) {
      settings.window = 8;
      settings.marginX = 9;
      settings.marginY = 5;
      settings.background = kUncovering.background;
      const Outcome run = Stabilize(format, settings, frames);
      for (std::size_t i = 0; i < takes.size(); ++i)
        for (int plane = 0; plane < format.planes; ++plane)
          EXPECT_EQ(std::ranges::count(run.frames[i][static_cast<std::size_t>(plane)],
                                       format.IsAlpha(plane) ? 0 : kBackground),
                    0)
              << "frame " << i << ", plane " << plane << " of " << format.planes << ", clipping "
              << static_cast<int>(settings.clipping) << ", tripod " << settings.tripod;
    }
  }
}

}  // namespace
}  // namespace precise
