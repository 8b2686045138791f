#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "precise/picture.h"
#include "precise/similarity.h"

/// Samples of 8 bits, plane after plane, rows without padding.
using PlanarFrame = std::array<std::vector<std::uint8_t>, precise::kMaxPlanes>;

/// What a frame shows, and how it was taken.
struct Take {
  precise::Similarity pose = {};  ///< where the scene's content stands
  std::uint32_t scene = 1;        ///< which of endlessly many; 0: a flat one
  double contrast = 1, gain = 1, offset = 0;
  double noise = 0;             ///< sigma, in sample steps
  std::uint32_t noiseSeed = 1;  ///< another noise for another frame
  double foreground = 0;        ///< share of the columns, from the left, that another scene hides
  precise::Similarity foregroundPose = {};
};

/// Content moved by so much about the picture's centre: samples to the right and rows down, and degrees
/// clockwise, as shown.
precise::Similarity MakePose(double x, double y, double degrees = 0, double zoom = 1);

/// Where a sample of the plane lies: as `Similarity` counts, from the picture's centre.
precise::Complex PlaceOf(const precise::PictureFormat& format, int plane, std::int32_t column,
                         std::int32_t row);

/// Takes a frame. The scene has detail at several scales, finest 10 samples a period, and values of 16 to 240
/// where there is no noise; all planes but alpha, which is 200, show it. The same bytes on every machine.
PlanarFrame Shoot(const precise::PictureFormat& format, const Take& take);
