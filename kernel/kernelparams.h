#pragma once

#include <array>
#include <cstdint>

#include "base/rect.h"

/// Motion between two consecutive frames, or the correction of one frame.
struct MotionRecord {
  std::int32_t dx, dy;  ///< pixels of the full frame; dy counts memory rows, that is upward in the picture
  double theta;         ///< degrees: counterclockwise in a motion, clockwise in a correction
};

/// What the motion estimation solves for.
enum class EstimationCoefficients : std::uint32_t { XY = 0, XYTheta = 1 };

/// How the warp interpolates; any value but Nearest is bilinear.
enum class Interpolation : std::uint32_t { Nearest = 0, Bilinear = 1 };

/// What the crop margins do to the delivered frame.
enum class ClippingOption : std::uint32_t {
  Outline = 0,        ///< a background border as wide as the margins
  Crop = 1,           ///< a smaller frame, without the margins
  CropAndStretch = 2  ///< a magnified frame that hides the moving edges
};

/// The kernel's configuration. Enumerations are numbers, because settings may hold any number;
/// `CStabilizeVideoKernel::Initialize` tells which ones it refuses.
struct KernelParams {
  std::int32_t width, height;
  Rect roi;  ///< motion is estimated from this region only
  std::uint32_t estimationCoefficients;
  std::uint32_t estimationQuality;              ///< 0 … 3 for quality 1 (finest) … 4; 0 and 1 do the same
  std::int32_t gaussianWeights;                 ///< 0 box weights, otherwise Gaussian weights
  std::int32_t windowLength;                    ///< frames: 4, 8, 12, 16, 24, 32, 64 or 128
  std::array<std::uint8_t, 3> backgroundColor;  ///< blue, green, red
  std::int32_t cropMarginX, cropMarginY;
  std::uint32_t interpolation, clippingOption;
};
