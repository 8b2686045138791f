#include "kernel/pathsmoothing.h"

#include <array>
#include <cstdlib>
#include <initializer_list>

namespace {

constexpr std::size_t kMaxWindow = 128;
constexpr std::int32_t kGaussianDivisor = 128;
constexpr std::array<std::int32_t, 8> kWindowLengths = {4, 8, 12, 16, 24, 32, 64, 128};

using WeightRow = std::array<std::int32_t, kMaxWindow>;
using WeightTable = std::array<WeightRow, kWindowLengths.size()>;

/// Sets an entry and its mirror image about the middle of the window, which has the opposite sign.
constexpr void SetMirrored(WeightRow& row, std::size_t window, std::size_t entry, std::int32_t weight) {
  row[entry] = weight;
  row[window - 1 - entry] = -weight;
}

constexpr WeightTable MakeBoxPathWeights() {
  WeightTable table = {};
  for (std::size_t index = 0; index < table.size(); ++index) {
    const auto window = static_cast<std::size_t>(kWindowLengths[index]);
    for (std::size_t i = 0; i < window / 2; ++i)
      SetMirrored(table[index], window, i, static_cast<std::int32_t>(i) + 1);
  }
  return table;
}

/// A row from the last weights before the middle of the window. Earlier entries are 0.
constexpr WeightRow MakeGaussianRow(std::size_t window, std::initializer_list<std::int32_t> weights) {
  WeightRow row = {};
  std::size_t entry = window / 2 - weights.size();
  for (const std::int32_t weight : weights) SetMirrored(row, window, entry++, weight);
  return row;
}

constexpr WeightTable BoxPathWeights = MakeBoxPathWeights();

constexpr WeightTable GaussianPathWeights = {
    MakeGaussianRow(4, {13, 41}),
    MakeGaussianRow(8, {3, 12, 27, 50}),
    MakeGaussianRow(12, {1, 3, 9, 19, 34, 53}),
    MakeGaussianRow(16, {1, 3, 7, 14, 24, 38, 55}),
    MakeGaussianRow(24, {1, 2, 4, 7, 12, 20, 30, 42, 57}),
    MakeGaussianRow(32, {1, 1, 2, 4, 7, 11, 17, 24, 34, 45, 58}),
    MakeGaussianRow(64, {1, 1, 2, 3, 4, 6, 8, 12, 16, 21, 27, 34, 42, 51, 59}),
    MakeGaussianRow(128, {1, 1, 1, 2, 2, 3, 4, 6, 8, 10, 12, 15, 18, 22, 27, 31, 37, 42, 48, 54, 61})};

std::uint32_t WrappedProduct(std::int32_t a, std::int32_t b) {
  return static_cast<std::uint32_t>(a) * static_cast<std::uint32_t>(b);
}

std::int32_t DivideTowardZero(std::uint32_t wrappedSum, std::int32_t divisor) {
  return static_cast<std::int32_t>(wrappedSum) / divisor;
}

std::int32_t DropIfTooFar(std::int32_t shift, std::int32_t side) {
  const auto limit = static_cast<std::int32_t>(static_cast<float>(side) * 0.6F);
  return std::abs(shift) >= limit ? 0 : shift;
}

}  // namespace

PathWeights FindPathWeights(std::int32_t windowLength, bool gaussian) {
  for (std::size_t index = 0; index < kWindowLengths.size(); ++index) {
    if (kWindowLengths[index] != windowLength) continue;
    const WeightRow& row = gaussian ? GaussianPathWeights[index] : BoxPathWeights[index];
    return {std::span(row).first(static_cast<std::size_t>(windowLength)),
            gaussian ? kGaussianDivisor : windowLength};
  }
  return {{}, 0};
}

MotionRecord ComputeCorrection(const Ring<MotionRecord>& ring, const PathWeights& weights, std::int32_t width,
                               std::int32_t height) {
  std::uint32_t dx = 0, dy = 0;
  double theta = 0;
  for (std::size_t i = 0; i < ring.Size(); ++i) {
    const MotionRecord& motion = ring[i];
    const std::int32_t weight = weights.entries[ring.Size() - 1 - i];
    dx += WrappedProduct(weight, motion.dx);
    dy += WrappedProduct(weight, motion.dy);
    theta += weight * motion.theta;
  }
  // Only the rotation is negated: corrections count angles in the opposite sense to motions.
  return {DropIfTooFar(DivideTowardZero(dx, weights.divisor), width),
          DropIfTooFar(DivideTowardZero(dy, weights.divisor), height), -(theta / weights.divisor)};
}
