#pragma once

#include <cstdint>
#include <optional>

#include "engine/stabilizersettings.h"
#include "host/options.h"
#include "precise/stabilizer.h"

// What was asked for, as the engines take it.

inline constexpr double kDefaultCropPercent = 5;  ///< of the precise engine

/// A region with equal right and bottom edges, which is all that the transform takes, and the same part of
/// the frame; nothing where there is none.
std::optional<Rect> ShareFarEdge(Rect roi, FrameSize size);

/// Settings of the classic engine for frames of `options.size`. Throws UsageError.
StabilizerSettings MakeClassicSettings(const Options& options);

/// What planes hold: luma and differences by a recommendation, or green, blue and red.
enum class ColourMatrix { Bt601, Bt709, Bt2020, Rgb };

/// What a stream of planar frames tells about itself.
struct StreamFacts {
  precise::PictureFormat format;
  std::int64_t rateNumerator = 0, rateDenominator = 0;  ///< frames a second; 0: unknown
  ColourMatrix matrix = ColourMatrix::Bt601;
  bool isFullRange = false;
};

/// Settings of the precise engine for such a stream. Throws UsageError when the engine cannot work so.
precise::Settings MakePreciseSettings(const Options& options, const StreamFacts& stream);
