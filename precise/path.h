#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "precise/shots.h"
#include "precise/similarity.h"

namespace precise {

/// Where a delivered frame's content is moved to, about the picture's centre: p → turn·p + shift. The turn
/// has length 1.
using Correction = Similarity;

/// Weights of the frames 0, 1, … window / 2 away: a Kaiser window (Kaiser and Schafer, "On the use of the
/// I0-sinh window for spectrum analysis", 1980) that reaches zero `width` frames away.
std::vector<double> PathWeights(std::int32_t window, double width);

/// Where the content of frame `frame` stands in the frames up to `poses.size() / 2` away from it, in the
/// order of time. Zoom is left out: a steady zoom about a point off the centre moves the content steadily
/// then, and needs no correction. Beyond the ends of its shot the path is continued by point reflection.
///
/// The outermost frame on either side counts as beyond an end unless its motion was measured directly:
/// whether it shows a flash or belongs to another shot may depend on the next frame beyond, which is out of
/// reach.
void FindPoses(const CTrack& track, std::int64_t frame, std::span<Similarity> poses);

/// Mean of the poses, weighted by their distance in time from the middle one.
Correction MeanPose(std::span<const Similarity> poses, std::span<const double> weights);

/// The correction at a share of the way from one to the other.
Correction Between(const Correction& from, const Correction& to, double share);

}  // namespace precise
