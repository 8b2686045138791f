#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "precise/path.h"

namespace precise {

/// Half of the picture, and half of the part of it that is shown before it is magnified: from the centre, as
/// shown.
struct Frames {
  Complex picture, shown;
};

/// True when all that is shown comes from the picture.
bool Fits(const Correction& correction, const Frames& frames);

/// Corrections of one frame, from none at all to the one wished for: low-passes of rising width, at the end
/// perhaps a held camera. Between two rungs stands their mixture.
class CLadder {
 public:
  static constexpr std::size_t kRungs = 10;
  static constexpr double kHighest = kRungs - 1;

  /// Weights of each rung's low-pass but the first's, which corrects nothing.
  using Weights = std::array<std::vector<double>, kRungs - 1>;

  /// The last rung weighs with `widest`.
  static Weights MakeWeights(std::int32_t window, std::span<const double> widest);

  CLadder() = default;
  CLadder(std::span<const Similarity> poses, const Weights& weights);

  void SetLast(const Correction& correction) { m_rungs.back() = correction; }

  /// The correction at a position of 0 to kHighest.
  Correction At(double position) const;

  /// How far up one can climb from the bottom while everything on the way fits.
  double Reach(const Frames& frames) const;

  /// The correction at the position, or a little below where that is needed to fit.
  Correction FittingAt(double position, const Frames& frames) const;

 private:
  std::array<Correction, kRungs> m_rungs;
};

/// A frame's position on its ladder. The reaches of consecutive frames, of which the frame is number
/// `middle`, are replaced by the least among their neighbours, and these by their weighted mean over as many.
/// So positions change gradually from frame to frame and never exceed a frame's own reach. `weights` are
/// those of the mean, by distance; their number less one is how far both look.
double SmoothReach(std::span<const double> reaches, std::int64_t middle, std::span<const double> weights);

}  // namespace precise
