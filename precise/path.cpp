#include "precise/path.h"

#include <cmath>

namespace precise {
namespace {

// Chosen among shapes of 2.5 to 6: it leaves little jitter (0.04 pixels; a Hamming window leaves 0.07) and
// still fades a jolt in and out.
constexpr double kKaiserShape = 3;

/// The modified Bessel function of the first kind and order 0.
double BesselI0(double x) {
  double term = 1, sum = 1;
  for (int i = 1; term > sum * 1e-17; ++i) {
    term *= (x / (2 * i)) * (x / (2 * i));
    sum += term;
  }
  return sum;
}

/// The point reflection of the pose `inside` about the pose `end`.
Similarity Reflected(const Similarity& end, const Similarity& inside) {
  return {Unit(end.turn * end.turn * Conjugate(inside.turn)), 2 * end.shift - inside.shift};
}

}  // namespace

std::vector<double> PathWeights(std::int32_t window, double width) {
  std::vector<double> weights;
  for (std::int32_t distance = 0; distance <= window / 2; ++distance) {
    const double u = distance / width;
    weights.push_back(u < 1 ? BesselI0(kKaiserShape * std::sqrt(1 - u * u)) : 0);
  }
  return weights;
}

void FindPoses(const CTrack& track, std::int64_t frame, std::span<Similarity> poses) {
  const auto half = static_cast<std::int64_t>(poses.size() / 2);
  const auto at = [&](std::int64_t distance) -> Similarity& {
    return poses[static_cast<std::size_t>(half + distance)];
  };
  const auto isTied = [&](std::int64_t later, bool outermost) {
    const Tie tie = track[later].tie;
    return tie == Tie::Measured || (tie == Tie::Assumed && !outermost);
  };
  std::int64_t before = 0, after = 0;  // how many frames belong to the shot on each side
  at(0) = {};
  while (after < half && frame + after + 1 < track.Frames() && isTied(frame + after + 1, after + 1 == half)) {
    ++after;
    at(after) = Compose(Rigid(track[frame + after].motion), at(after - 1));
  }
  while (before < half && frame > before && isTied(frame - before, before + 1 == half)) {
    ++before;
    at(-before) = Compose(Inverse(Rigid(track[frame - before + 1].motion)), at(-before + 1));
  }
  for (std::int64_t distance = 1; distance <= half; ++distance) {
    const bool isAlone = before == 0 && after == 0;
    // A side that ends at the frame itself reflects poses of the other side, which must be filled first.
    const auto continueAfter = [&] {
      if (distance > after)
        at(distance) = isAlone ? Similarity{} : Reflected(at(after), at(2 * after - distance));
    };
    const auto continueBefore = [&] {
      if (distance > before)
        at(-distance) = isAlone ? Similarity{} : Reflected(at(-before), at(distance - 2 * before));
    };
    if (after == 0) {
      continueBefore();
      continueAfter();
    } else {
      continueAfter();
      continueBefore();
    }
  }
}

Correction MeanPose(std::span<const Similarity> poses, std::span<const double> weights) {
  const std::size_t middle = poses.size() / 2;
  Complex turn, shift;
  double sum = 0;
  for (std::size_t i = 0; i < poses.size(); ++i) {
    const double weight = weights[i < middle ? middle - i : i - middle];
    turn = turn + weight * poses[i].turn;
    shift = shift + weight * poses[i].shift;
    sum += weight;
  }
  return {Unit(turn), 1 / sum * shift};
}

Correction Between(const Correction& from, const Correction& to, double share) {
  return {Unit((1 - share) * from.turn + share * to.turn), (1 - share) * from.shift + share * to.shift};
}

}  // namespace precise
