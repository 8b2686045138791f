#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "precise/path.h"

namespace precise {

/// Half the width (re) and half the height (im), in display coordinates: of the picture, and of the part of
/// the corrected picture that is shown, before any magnification.
struct HalfSizes {
  Complex picture, shown;
};

/// True when the corrected picture covers all that is shown.
bool Fits(const Correction& correction, const HalfSizes& sizes);

/// Corrections of one frame in rising strength. Rung 0 corrects nothing. The rungs above are low-passes of
/// rising width. The last rung is the correction that the settings ask for: the widest low-pass, or a held
/// camera. Positions between two rungs mix them linearly.
class CLadder {
 public:
  static constexpr std::size_t kRungs = 10;
  static constexpr double kHighest = kRungs - 1;

  /// Weights of the low-passes of rungs 1 and up, each as for `MeanPose`.
  using Weights = std::array<std::vector<double>, kRungs - 1>;

  /// Weights for a smoothing window of so many frames. The last rung gets `widest`: window / 2 + 1 weights.
  /// Throws std::bad_alloc.
  static Weights MakeWeights(std::int32_t window, std::span<const double> widest);

  CLadder() = default;
  /// Makes the rungs from the window + 1 poses of `FindPoses`.
  CLadder(std::span<const Similarity> poses, const Weights& weights);

  /// Replaces the last rung.
  void SetLast(const Correction& correction) { m_rungs.back() = correction; }

  /// The correction at a position of 0 to kHighest.
  Correction At(double position) const;

  /// The highest position that fits, with all rungs below it. Between two rungs it is found to 1/64.
  double Reach(const HalfSizes& sizes) const;

  /// The correction at the position. While that does not fit, the position is lowered by 1/64, down to no
  /// correction.
  Correction FittingAt(double position, const HalfSizes& sizes) const;

 private:
  std::array<Correction, kRungs> m_rungs;
};

/// The position on its ladder for frame `middle` of consecutive frames with these reaches: a moving minimum
/// of the reaches, then a moving weighted mean of the minima. So positions change gradually from frame to
/// frame, and none exceeds the frame's own reach.
///
/// `weights` are those of the mean for the frames 0, 1, … away. Minimum and mean both look weights.size() - 1
/// frames ahead and back, or to the end of `reaches` where that is nearer.
double SmoothReach(std::span<const double> reaches, std::int64_t middle, std::span<const double> weights);

}  // namespace precise
