#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "precise/picture.h"
#include "precise/similarity.h"

/// Samples of 8 bits, plane after plane, rows without padding.
using PlanarFrame = std::array<std::vector<std::uint8_t>, precise::kMaxPlanes>;

/// The content of a frame, and the camera and exposure that take it.
struct Take {
  precise::Similarity pose = {};  ///< of the scene's content in the frame
  std::uint32_t scene = 1;        ///< number of the scene; 0 is a flat one
  double contrast = 1, gain = 1, offset = 0;
  double noise = 0;  ///< sigma, in sample steps
  std::uint32_t noiseSeed = 1;
  double foreground = 0;  ///< share of the columns, from the left, where another scene hides this one
  precise::Similarity foregroundPose = {};
};

/// The pose of content that is magnified and turned about the picture's centre (degrees clockwise, as shown),
/// and then moved by x samples to the right and y rows down.
precise::Similarity MakePose(double x, double y, double degrees = 0, double zoom = 1);

/// The place of a sample of the plane in the coordinates of `Similarity`.
precise::Complex PlaceOf(const precise::PictureFormat& format, int plane, std::int32_t column,
                         std::int32_t row);

/// Takes a frame. The scene has detail at several scales, with periods of 10 samples and more. Without noise
/// its values are 16 to 240. All planes show it but alpha, which is 200. The bytes are the same on every
/// machine.
PlanarFrame Shoot(const precise::PictureFormat& format, const Take& take);
