#include "precise/motion.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <utility>

#include "precise/loops.h"
#include "precise/normalequations.h"
#include "precise/sourceline.h"

namespace precise {
namespace {

constexpr double kLargestGain = 4;
// The median does not tell larger residuals apart.
constexpr std::int32_t kLargestResidual = 2047;

// Sigma of a normal distribution over its median magnitude, and the constant of Tukey's biweight for 95 %
// efficiency (Holland and Welsch, "Robust regression using iteratively reweighted least-squares", 1977).
constexpr double kSigmaOverMedian = 1.4826;
constexpr double kTukeyConstant = 4.685;
// Samples are rounded, so no residual is more certain than this.
constexpr double kSmallestSigma = 1;
// Standard deviations of a prior on the unknowns. It keeps them at 0 where there is no texture.
constexpr UnknownVector kPriorSigma = {50, 50, 20, 20, 0.3, 100};

// The full search goes so far: a share of the picture's longer side, and at most so many samples.
constexpr double kSearchedShare = 0.18;
constexpr double kMostSearched = 32;
// Larger motions are implausible: the shift as a share of the longer side, and the distance of the turn
// from 1.
constexpr double kLargestShift = 0.25, kLargestTurn = 0.35;
// The most Gauss-Newton steps: at the coarsest level with shift alone, and in all; at each other level.
constexpr int kShiftSteps = 3, kStartSteps = 8, kLevelSteps = 5;
constexpr double kSmallestStep = 0.008;  // samples

constexpr std::int32_t kSmallestRegionSide = 12;
// Frames are compared at the finest level whose shorter side is not longer than this.
constexpr std::int32_t kLargestComparedSide = 100;
// A later start must cost less than this share of an earlier one: in noise, too, the search finds a best
// shift.
constexpr double kClearlyLess = 0.9;
constexpr double kSameScene = 0.3;
// A cell has texture when the root mean square of its gradients is larger than this in both frames.
constexpr double kSmallestTexture = 6;
constexpr double kSmallestTexturedShare = 0.15;  // of the cells

/// The region at a level, without samples on the plane's edge, which lack a neighbour.
Rect ScaledRegion(const Rect& region, double scale, const Plane& plane) {
  const auto lower = [&](std::int32_t edge) { return std::max(1, static_cast<std::int32_t>(edge / scale)); };
  const auto upper = [&](std::int32_t edge, std::int32_t side) {
    return std::min(side - 1, static_cast<std::int32_t>(std::ceil(edge / scale)));
  };
  return {lower(region.left), lower(region.top), upper(region.right, plane.Width()),
          upper(region.bottom, plane.Height())};
}

ColumnRun Columns(const Rect& region) { return {region.left, region.right}; }

bool IsPlausible(const Similarity& map, double longerSide) {
  return Length(map.shift) <= kLargestShift * longerSide && Length(map.turn - Complex{1, 0}) <= kLargestTurn;
}

RobustWeight WeightFor(double sigma) {
  const auto scale = std::max(1, static_cast<std::int32_t>(32768 / (kTukeyConstant * sigma)));
  return {scale, (32768 + scale - 1) / scale};
}

Exposure FixedExposure(double gain, double offset) {
  return {static_cast<std::int32_t>(std::lround(gain * (1 << kExposureBits))),
          static_cast<std::int32_t>(
              std::lround((kMiddleBrightness * (1 - gain) + offset) * (1 << kExposureBits)))};
}

/// The mean of a function of the region's samples.
template <class Function>
double MeanOf(const Plane& plane, const Rect& region, Function function) {
  std::int64_t sum = 0, count = 0;
  for (std::int32_t y = region.top; y < region.bottom; ++y)
    for (std::int32_t x = region.left; x < region.right; ++x, ++count) sum += function(plane.Row(y)[x]);
  return static_cast<double>(sum) / static_cast<double>(count);
}

double Mean(const Plane& plane, const Rect& region) {
  return MeanOf(plane, region, [](std::int32_t sample) { return sample; });
}

/// The mean absolute deviation.
double Spread(const Plane& plane, const Rect& region) {
  const auto mean = static_cast<std::int32_t>(Mean(plane, region));
  return MeanOf(plane, region, [mean](std::int32_t sample) { return std::abs(sample - mean); });
}

}  // namespace

bool Match::IsSameScene() const { return likeness >= kSameScene; }

CMotionEstimator::CMotionEstimator(const PictureFormat& format, const std::optional<Rect>& region,
                                   const Loops& loops)
    : m_pLoops(&loops), m_format(format), m_region(region.value_or(Rect{0, 0, format.width, format.height})) {
  const Plane finest = std::move(Pyramid(format).levels.front().samples);
  m_residuals.resize(static_cast<std::size_t>(finest.Width()) * static_cast<std::size_t>(finest.Height()));
}

CMotionEstimator::View CMotionEstimator::ViewOf(const Pyramid& earlier, const Pyramid& later,
                                                std::size_t level) const {
  const Level& from = earlier.levels[level];
  const Complex half = {m_format.width / (2 * from.scale), m_format.height / (2 * from.scale)};
  return {.earlier = &from.smooth,
          .later = &later.levels[level].samples,
          .laterSmooth = &later.levels[level].smooth,
          .scale = from.scale,
          .centre = half - Complex{0.5, 0.5},
          .aspect = m_format.pixelAspect,
          .radius = std::max(half.re * m_format.pixelAspect, half.im),
          .region = ScaledRegion(m_region, from.scale, from.smooth)};
}

/// The whole-sample shift with the least mean of capped differences, after the frames' means are subtracted.
Similarity CMotionEstimator::SearchShift(const View& view, std::int32_t cap) const {
  const Plane &earlier = *view.earlier, &later = *view.later;
  const auto brighter = static_cast<std::int32_t>(
      std::lround(Mean(*view.laterSmooth, view.region) - Mean(earlier, view.region)));
  const auto reach = static_cast<std::int32_t>(
      std::min(std::ceil(kSearchedShare * std::max(earlier.Width(), earlier.Height())), kMostSearched));
  const std::int32_t reachX = std::min(reach, earlier.Width() / 2),
                     reachY = std::min(reach, earlier.Height() / 2);
  double least = std::numeric_limits<double>::infinity();
  Complex best;
  for (std::int32_t dy = -reachY; dy <= reachY; ++dy) {
    const std::int32_t top = std::max(view.region.top, -dy);
    const std::int32_t bottom = std::min(view.region.bottom, earlier.Height() - dy);
    for (std::int32_t dx = -reachX; dx <= reachX; ++dx) {
      const std::int32_t left = std::max(view.region.left, -dx);
      const std::int32_t right = std::min(view.region.right, earlier.Width() - dx);
      if (left >= right || top >= bottom) continue;
      std::int64_t sum = 0;
      for (std::int32_t y = top; y < bottom; ++y)
        sum += m_pLoops->sumCappedDifferences(earlier.Row(y) + left, later.Row(y + dy) + left + dx,
                                              right - left, brighter, cap);
      const double cost = static_cast<double>(sum) / (double{1} * (right - left) * (bottom - top));
      if (cost >= least) continue;
      least = cost;
      best = {dx * view.aspect * view.scale, dy * view.scale};
    }
  }
  return {.shift = best};
}

/// Refines each start: no motion, the guesses, the best shift of the search. Returns the one that fits best;
/// a later one counts as better only if it is clearly so.
CMotionEstimator::Alignment CMotionEstimator::BestStart(const View& view,
                                                        std::span<const Similarity> guesses) {
  const double cap = std::max(2 * Spread(*view.earlier, view.region), 8.0);
  // Both means are of smooth frames, as smoothing changes a mean a little.
  const double brighter = Mean(*view.laterSmooth, view.region) - Mean(*view.earlier, view.region);
  Alignment best;
  double least = std::numeric_limits<double>::infinity();
  const auto attempt = [&](const Similarity& start) {
    Alignment alignment = {.map = start, .offset = brighter};
    Refine(view, alignment, kStartSteps, kShiftSteps);
    if (!IsPlausible(alignment.map, 2 * view.radius * view.scale)) return;
    const double cost = Cost(view, alignment, cap);
    if (cost > kClearlyLess * least) return;
    least = cost;
    best = alignment;
  };
  attempt({});
  for (const Similarity& guess : guesses) attempt(guess);
  attempt(SearchShift(view, static_cast<std::int32_t>(cap)));
  return best;
}

/// Writes the residuals of the region, and `kNoResidual` where the map leads out of the later frame. Returns
/// how many samples have a residual.
std::int64_t CMotionEstimator::FillResiduals(const View& view, const Similarity& map,
                                             const Exposure& exposure) {
  const Plane& later = *view.later;
  // The spline reads one sample back and two ahead.
  const PositionRange insideX = {kOneSample, (later.Width() - 2) * kOneSample};
  const PositionRange insideY = {kOneSample, (later.Height() - 2) * kOneSample};
  const Complex shift = 1 / view.scale * map.shift;
  std::int64_t count = 0;
  for (std::int32_t row = view.region.top; row < view.region.bottom; ++row) {
    const Complex first = map.turn * Complex{-view.centre.re * view.aspect, row - view.centre.im} + shift;
    const SourceLine line = MakeSourceLine(first.re / view.aspect + view.centre.re, first.im + view.centre.im,
                                           map.turn.re, map.turn.im * view.aspect);
    const ColumnRun run = ColumnsInside(line, insideX, insideY, Columns(view.region));
    std::int16_t* const out = ResidualRowOf(view, row);
    std::fill(out + view.region.left, out + run.begin, kNoResidual);
    if (run.begin < run.end)
      m_pLoops->residualRow(later.Row(0), later.Width(), line, run, view.earlier->Row(row), exposure, out);
    std::fill(out + run.end, out + view.region.right, kNoResidual);
    count += run.end - run.begin;
  }
  return count;
}

std::int64_t CMotionEstimator::CountBelow(const View& view, std::int32_t limit) {
  std::int64_t count = 0;
  for (std::int32_t row = view.region.top; row < view.region.bottom; ++row)
    count += m_pLoops->countBelow(ResidualRowOf(view, row) + view.region.left,
                                  view.region.right - view.region.left, limit);
  return count;
}

/// The median magnitude of the `count` residuals. Counts those below a limit, which is moved from the last
/// median outwards and then bisected. Several counts cost less than one histogram, which cannot be made with
/// vectors.
double CMotionEstimator::MedianResidual(const View& view, std::int64_t count) {
  // Less than half of the residuals are below `low`, at least half below `high`.
  std::int32_t low = 0, high = kLargestResidual + 1;
  std::int64_t belowLow = 0, belowHigh = count;
  const auto isAbove = [&](std::int32_t limit) {
    const std::int64_t below = CountBelow(view, limit);
    const bool above = 2 * below < count;
    (above ? low : high) = limit;
    (above ? belowLow : belowHigh) = below;
    return above;
  };
  const bool rises = isAbove(m_lastMedian);
  for (std::int32_t reach = 1; reach < high - low; reach *= 2)
    if (isAbove(rises ? low + reach : high - reach) != rises) break;
  while (low + 1 < high) isAbove((low + high) / 2);
  m_lastMedian = std::min(high, kLargestResidual);
  // Residuals equal to the median are taken as spread evenly around it by ±1/2.
  const std::int64_t equal = belowHigh - belowLow;
  const double inside = equal > 0 ? (0.5 * static_cast<double>(count) - static_cast<double>(belowLow)) /
                                        static_cast<double>(equal)
                                  : 0.5;
  return low + inside - 0.5;
}

/// The sum of the residuals' magnitudes, each at most `cap`. A sample without a residual counts as half of
/// `cap`.
double CMotionEstimator::Cost(const View& view, const Alignment& alignment, double cap) {
  FillResiduals(view, alignment.map, FixedExposure(alignment.gain, alignment.offset));
  const auto most = static_cast<std::int32_t>(cap);
  std::int64_t sum = 0;
  for (std::int32_t row = view.region.top; row < view.region.bottom; ++row) {
    const std::int16_t* const residuals = ResidualRowOf(view, row);
    for (std::int32_t x = view.region.left; x < view.region.right; ++x)
      sum += residuals[x] == kNoResidual ? most / 2 : std::min(std::abs(int{residuals[x]}), most);
  }
  return static_cast<double>(sum);
}

/// One Gauss-Newton step. Returns how far it moves a point at the view's radius at most, in sample heights.
double CMotionEstimator::Step(const View& view, Alignment& alignment, bool shiftOnly) {
  const std::int64_t count =
      FillResiduals(view, alignment.map, FixedExposure(alignment.gain, alignment.offset));
  const double sigma = std::max(kSigmaOverMedian * MedianResidual(view, count), kSmallestSigma);
  const RobustWeight weight = WeightFor(sigma);

  NormalEquations equations;
  const Rect& region = view.region;
  for (std::int32_t top = region.top; top < region.bottom; top += kCellSide) {
    const std::int32_t height = std::min(kCellSide, region.bottom - top);
    for (std::int32_t left = region.left; left < region.right; left += kCellSide) {
      const std::int32_t width = std::min(kCellSide, region.right - left);
      const CellSums sums = m_pLoops->sumCell(view.earlier->Row(top) + left, ResidualRowOf(view, top) + left,
                                              view.earlier->Width(), width, height, weight);
      const Complex middle = Complex{left + (width - 1) / 2.0, top + (height - 1) / 2.0} - view.centre;
      equations.AddCell(sums, {middle.re * view.aspect, middle.im}, view.radius, view.aspect);
    }
  }
  for (std::size_t i = 0; i < kUnknowns; ++i) {
    const double prior = sigma / kPriorSigma[i];
    equations.matrix[i][i] += prior * prior;
  }
  if (shiftOnly) {
    equations.Hold(kRoll);
    equations.Hold(kZoom);
  }
  UnknownVector step;
  if (!equations.Solve(step)) return 0;

  const Similarity delta = {.turn = {1 + step[kZoom] / view.radius, step[kRoll] / view.radius},
                            .shift = view.scale * Complex{step[kShiftX], step[kShiftY]}};
  alignment.map = Compose(alignment.map, Inverse(delta));
  alignment.gain = std::clamp(alignment.gain + step[kGain], 1 / kLargestGain, kLargestGain);
  alignment.offset =
      std::clamp(alignment.offset + step[kOffset], -2.0 * kMiddleBrightness, 2.0 * kMiddleBrightness);
  return Length({step[kShiftX], step[kShiftY]}) + Length({step[kRoll], step[kZoom]});
}

/// Makes up to `steps` steps, the first `shiftSteps` of them with shift alone. Ends earlier where the motion
/// becomes implausible, or after a small step of all unknowns.
void CMotionEstimator::Refine(const View& view, Alignment& alignment, int steps, int shiftSteps) {
  for (int i = 0; i < steps && IsPlausible(alignment.map, 2 * view.radius * view.scale); ++i)
    if (Step(view, alignment, i < shiftSteps) < kSmallestStep && i >= shiftSteps) return;
}

/// Correlates the gradients of the earlier frame with those of the later one, aligned by the map.
Match CMotionEstimator::Compare(const View& view, const Similarity& map) {
  // Without a reference to subtract, the residuals are the samples of the aligned frame.
  FillResiduals(view, map, {.gain = 0, .offset = 0});
  GradientProducts total;
  std::int32_t cells = 0, texturedCells = 0;
  for (std::int32_t top = view.region.top + 1; top + 1 < view.region.bottom; top += kCellSide) {
    for (std::int32_t left = view.region.left + 1; left + 1 < view.region.right; left += kCellSide) {
      const ComparedCell cell = CompareCell(view, left, top);
      total.aa += cell.products.aa;
      total.ab += cell.products.ab;
      total.bb += cell.products.bb;
      ++cells;
      texturedCells += cell.samples > 0 && static_cast<double>(std::min(cell.products.aa, cell.products.bb)) >
                                               kSmallestTexture * kSmallestTexture * cell.samples;
    }
  }
  Match match = {.map = map};
  const double energies = static_cast<double>(total.aa) * static_cast<double>(total.bb);
  if (energies > 0) match.likeness = static_cast<double>(total.ab) / std::sqrt(energies);
  match.hasTexture = texturedCells >= kSmallestTexturedShare * cells;
  return match;
}

/// Sums over the samples of a cell whose four neighbours all have a counterpart.
CMotionEstimator::ComparedCell CMotionEstimator::CompareCell(const View& view, std::int32_t left,
                                                             std::int32_t top) {
  ComparedCell cell;
  for (std::int32_t row = top; row < std::min(top + kCellSide, view.region.bottom - 1); ++row) {
    const std::array<const std::int16_t*, 3> earlier = {view.earlier->Row(row - 1), view.earlier->Row(row),
                                                        view.earlier->Row(row + 1)};
    const std::array<const std::int16_t*, 3> later = {ResidualRowOf(view, row - 1), ResidualRowOf(view, row),
                                                      ResidualRowOf(view, row + 1)};
    const auto isMissing = [&](std::int32_t x) {
      return later[0][x] == kNoResidual || later[1][x - 1] == kNoResidual || later[1][x + 1] == kNoResidual ||
             later[2][x] == kNoResidual;
    };
    ColumnRun run = {left, std::min(left + kCellSide, view.region.right - 1)};
    while (run.begin < run.end && isMissing(run.begin)) ++run.begin;
    while (run.begin < run.end && isMissing(run.end - 1)) --run.end;
    m_pLoops->addGradientProducts(earlier, later, run, cell.products);
    cell.samples += run.end - run.begin;
  }
  return cell;
}

Match CMotionEstimator::Estimate(const Pyramid& earlier, const Pyramid& later,
                                 std::span<const Similarity> guesses) {
  const auto shorterSide = [](const Rect& region) {
    return std::min(region.right - region.left, region.bottom - region.top);
  };
  std::size_t level = earlier.levels.size() - 1;
  while (level > 0 && shorterSide(ViewOf(earlier, later, level).region) < kSmallestRegionSide) --level;
  const View start = ViewOf(earlier, later, level);
  if (shorterSide(start.region) < kSmallestRegionSide) return {};

  Alignment alignment = BestStart(start, guesses);
  std::size_t compared = level;
  while (level-- > 0) {
    const View view = ViewOf(earlier, later, level);
    Refine(view, alignment, kLevelSteps);
    if (std::min(view.earlier->Width(), view.earlier->Height()) <= kLargestComparedSide) compared = level;
  }
  if (!IsPlausible(alignment.map, 2 * start.radius * start.scale)) alignment = {};
  return Compare(ViewOf(earlier, later, compared), alignment.map);
}

}  // namespace precise
