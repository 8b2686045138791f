#pragma once

#include <cstdint>
#include <optional>

#include "engine/stabilizersettings.h"
#include "host/options.h"
#include "precise/stabilizer.h"

// Turns the command's options into the engines' settings.

inline constexpr double kDefaultCropPercent = 5;  ///< of the precise engine

/// The transform takes only regions whose right and bottom edges are the same number. Returns such a region
/// that covers the same part of the frame, or nothing if there is none.
std::optional<Rect> EqualizeRightAndBottom(Rect roi, FrameSize size);

/// Settings of the classic engine for frames of `options.size`. Throws UsageError.
StabilizerSettings MakeClassicSettings(const Options& options);

/// How planes code a colour: as luma and colour differences of an ITU-R recommendation, or as green, blue,
/// red.
enum class ColourMatrix { Bt601, Bt709, Bt2020, Rgb };

/// The properties that a stream of planar frames declares.
struct StreamFacts {
  precise::PictureFormat format;
  std::int64_t rateNumerator = 0, rateDenominator = 0;  ///< frames a second; 0: unknown
  ColourMatrix matrix = ColourMatrix::Bt601;
  bool isFullRange = false;
};

/// Settings of the precise engine for such a stream. Throws UsageError when the engine cannot use them.
precise::Settings MakePreciseSettings(const Options& options, const StreamFacts& stream);
