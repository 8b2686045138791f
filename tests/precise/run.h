#pragma once

#include <span>
#include <string_view>
#include <vector>

#include "precise/stabilizer.h"
#include "scenes/planarscene.h"

namespace precise {

inline constexpr PictureFormat kGrey = {.width = 160, .height = 120};
inline constexpr PictureFormat kSmall420 = {
    .width = 64, .height = 48, .planes = 3, .chromaShiftX = 1, .chromaShiftY = 1, .chromaSiteY = 0.5};

/// What came out of a stabilizer.
struct Outcome {
  std::vector<PlanarFrame> frames;
  std::vector<FrameReport> reports;
};

/// How a stabilizer is run. What comes out must not depend on it, except that a kept background lacks a
/// skipped frame.
struct Way {
  bool bottomUp = false;  ///< the order of rows in memory
  SimdLevel cap = SimdLevel::Avx2;
  RowRunner runner = {};
  std::ptrdiff_t skipped = -1;  ///< number of a frame that is not drawn
};

/// Stabilizes the frames as a caller would. Expects of every run that frames come out as soon as the delay
/// allows, and as many as went in; that no call allocates or writes behind the output's rows; and, with
/// sanitizers, that no frame is read after it was given back.
Outcome Stabilize(const PictureFormat& format, const Settings& settings, std::span<const PlanarFrame> frames,
                  const Way& way = {});

/// Expects equal bytes, motions and corrections.
void ExpectSame(const Outcome& expected, std::size_t expectedFirst, const Outcome& actual,
                std::size_t actualFirst, std::size_t count);

/// A frame for each letter, shaken: 'W' is white, 'K' black, any other letter its own scene. The amplitude is
/// about that many pixels.
std::vector<Take> ShakyTakes(std::string_view scenes, double amplitude = 2);

std::vector<PlanarFrame> ShootAll(const PictureFormat& format, std::span<const Take> takes);

}  // namespace precise
