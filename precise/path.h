#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "precise/shots.h"
#include "precise/similarity.h"

namespace precise {

/// How the stabilizer moves a frame's content. The turn has length 1.
using Correction = Similarity;

/// Weights of the frames 0, 1, … window / 2 away, not normalized: a Kaiser window (Kaiser and Schafer, "On
/// the use of the I0-sinh window for spectrum analysis", 1980), which is 0 from `width` frames on. Throws
/// std::bad_alloc.
std::vector<double> PathWeights(std::int32_t window, double width);

/// Fills `poses`, an odd number in order of time, with the poses of one frame's content: how the content of
/// `frame`, which is the middle one, is placed in each of the frames around it. The middle pose is the
/// identity.
///
/// Zoom is left out. So a steady zoom about a point off the centre is a steady shift, which needs no
/// correction. Beyond the ends of the shot, poses are point reflections of those before the end.
///
/// The outermost frame on either side counts as beyond the shot's end unless its motion was measured
/// directly. Whether such a frame is a flash or begins a shot may depend on the frame after it, which the
/// window does not include.
void FindPoses(const CTrack& track, std::int64_t frame, std::span<Similarity> poses);

/// The weighted mean of the poses: the low-pass filter of the path. `weights` are for the poses 0, 1, … away
/// from the middle one. Turns are averaged as vectors (the circular mean).
Correction MeanPose(std::span<const Similarity> poses, std::span<const double> weights);

/// The linear mixture of two corrections: `from` where share is 0, `to` where it is 1.
Correction Between(const Correction& from, const Correction& to, double share);

}  // namespace precise
