#include "kernel/motionestimation.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "kernel/leastsquares.h"
#include "kernel/sampling.h"

namespace {

constexpr int kMaxIterations = 30;
constexpr int kMaxOscillations = 2;
constexpr double kHalfDegree = 0.01745329251994 * 0.5;
// Small planes are rotated with fewer fraction bits.
constexpr std::int32_t kFinePlaneSide = 400;
constexpr std::size_t kCoarsestRotationLevel = 1;

std::int32_t Saturate(std::int64_t value) {
  return static_cast<std::int32_t>(std::clamp<std::int64_t>(value, std::numeric_limits<std::int32_t>::min(),
                                                            std::numeric_limits<std::int32_t>::max()));
}

/// One axis of the displacement: it moves in whole samples and remembers its last move.
struct Axis {
  std::int64_t position;
  double update = 0;
  std::int64_t step = 0;
  int sign = 0;

  /// Rounds the update away from zero to whole samples and moves by them. True when the move turned back.
  bool Move(double newUpdate, int newSign) {
    const bool turnedBack = sign == -newSign;
    update = newUpdate;
    sign = newSign;
    step = newSign * static_cast<std::int64_t>(std::ceil(std::abs(newUpdate)));
    position += step;
    return turnedBack;
  }

  /// The last whole step is taken back when it overshot by more than half a sample.
  std::int32_t FinestResult() const {
    const bool overshot = std::abs(update - static_cast<double>(step)) > 0.5;
    return Saturate(overshot ? position - sign : position);
  }

  /// The last whole step gives way to the real update; doubled for the next finer level.
  std::int32_t CoarseResult() const {
    return Saturate(2 * static_cast<std::int64_t>(static_cast<double>(position - step) + update));
  }

  std::int32_t Result(std::size_t level) const { return level == 0 ? FinestResult() : CoarseResult(); }
};

/// 1, 0 or -1; the rotation estimator knows no zero.
int SignOrZero(double value) { return value > 0 ? 1 : value < 0 ? -1 : 0; }
int SignOf(double value) { return value > 0 ? 1 : -1; }

TranslationSums SumTranslation(const GaussianPyramidCalcParams& level, std::int64_t x, std::int64_t y,
                               const KernelOps& ops) {
  const Rect window = ComparableSamples(level.width, level.height, x, y);
  TranslationSums sums;
  if (window.left >= window.right) return sums;
  for (std::int32_t row = window.top; row < window.bottom; ++row)
    ops.addTranslationRow(level.previousPlane.Row(row) + window.left,
                          level.currentPlane.Row(row + y) + window.left + x, level.width,
                          window.right - window.left, sums);
  return sums;
}

void EstimateTranslation(GaussianPyramidCalcParams& level, std::size_t index, MotionRecord start,
                         const KernelOps& ops) {
  Axis x = {start.dx}, y = {start.dy};
  int oscillations = 0;
  for (int i = 0; i < kMaxIterations && oscillations < kMaxOscillations; ++i) {
    const MotionUpdate update = SolveTranslation(SumTranslation(level, x.position, y.position, ops));
    const bool xTurned = x.Move(update.x, SignOrZero(update.x));
    const bool yTurned = y.Move(update.y, SignOrZero(update.y));
    if (xTurned && yTurned) ++oscillations;
    if (x.step == 0 && y.step == 0) break;  // every further iteration would repeat this one
  }
  level.dx = x.Result(index);
  level.dy = y.Result(index);
}

/// Turns a plane about its centre, with 2·2^precision as the unit of positions.
class PlaneRotation {
 public:
  PlaneRotation(std::int32_t width, std::int32_t height, double radians)
      : m_width(width),
        m_height(height),
        m_precision(width < kFinePlaneSide && height < kFinePlaneSide ? 21 : 31),
        m_angle(radians, m_precision) {}

  SourceLine Line(std::int32_t row) const {
    const std::int64_t one = std::int64_t{1} << m_precision;
    const std::int64_t spanX = m_width - 1, spanY = m_height - 1;
    return {-2 * row * m_angle.sine - spanX * m_angle.cosine + spanY * m_angle.sine + spanX * one,
            2 * row * m_angle.cosine - spanX * m_angle.sine - spanY * m_angle.cosine + spanY * one,
            2 * m_angle.cosine, 2 * m_angle.sine, m_precision + 1};
  }

  ColumnRun Usable(const SourceLine& line) const {
    return UsableColumns(line, m_width, m_height, {0, m_width});
  }

 private:
  std::int32_t m_width, m_height;
  int m_precision;
  FixedRotation m_angle;
};

void ZeroOutside(ColumnRun run, std::int16_t* row, std::int32_t width) {
  run.end = std::max(run.begin, run.end);
  std::fill(row, row + run.begin, std::int16_t{0});
  std::fill(row + run.end, row + width, std::int16_t{0});
}

RotationSums SumRotation(const GaussianPyramidCalcParams& level, const RotationScratch& scratch,
                         std::int64_t x, std::int64_t y, const KernelOps& ops) {
  const Rect window = ComparableSamples(level.width, level.height, x, y);
  RotationSums sums;
  if (window.left >= window.right) return sums;
  for (std::int32_t row = window.top; row < window.bottom; ++row) {
    const ColumnRun run = ComparableColumns(window, scratch.usable, row, x, y);
    if (run.begin >= run.end) continue;
    ops.addRotationRow(level.previousPlane.Row(row) + run.begin, scratch.rotated.Row(row + y) + run.begin + x,
                       scratch.rotated.Width(), scratch.derivative.Row(row + y) + run.begin + x,
                       run.end - run.begin, sums);
  }
  return sums;
}

void EstimateRotation(GaussianPyramidCalcParams& level, std::size_t index, MotionRecord start,
                      RotationScratch& scratch, const KernelOps& ops) {
  Axis x = {start.dx}, y = {start.dy};
  double theta = start.theta, previousTheta = start.theta;
  int thetaSign = 0, oscillations = 0;
  for (int i = 0; i < kMaxIterations && oscillations < kMaxOscillations; ++i) {
    RotatePlane(level.currentPlane, theta, scratch, ops);
    const MotionUpdate update = SolveRotation(SumRotation(level, scratch, x.position, y.position, ops));
    const bool thetaTurned = thetaSign == -SignOf(update.theta);
    const bool xTurned = x.Move(update.x, SignOf(update.x));
    const bool yTurned = y.Move(update.y, SignOf(update.y));
    if (thetaTurned && xTurned && yTurned) ++oscillations;
    thetaSign = SignOf(update.theta);
    previousTheta = theta;
    theta += update.theta;
    if (x.step == 0 && y.step == 0 && theta == previousTheta)
      break;  // further iterations would repeat this one
  }
  level.dx = x.Result(index);
  level.dy = y.Result(index);
  level.theta = index <= kCoarsestRotationLevel ? (previousTheta + theta) / 2 : 0.0;
}

std::size_t FinestLevel(std::uint32_t quality, std::size_t levelCount) {
  const std::size_t wanted = quality == 2 ? 1 : quality == 3 ? 2 : 0;
  return std::min(wanted, levelCount - 1);
}

}  // namespace

RotationScratch::RotationScratch(std::int32_t width, std::int32_t height)
    : rotated(width, height),
      derivative(width, height),
      usable(static_cast<std::size_t>(height)),
      turnedFurther(static_cast<std::size_t>(width)) {}

Rect ComparableSamples(std::int32_t width, std::int32_t height, std::int64_t x, std::int64_t y) {
  const auto side = [](std::int32_t length, std::int64_t shift) -> std::pair<std::int32_t, std::int32_t> {
    if (shift > length || shift < -std::int64_t{length}) return {0, 0};
    const auto offset = static_cast<std::int32_t>(shift);
    return shift > 0 ? std::pair{2, length - 2 - offset} : std::pair{1 - offset, length - 2};
  };
  const auto [left, right] = side(width, x);
  const auto [top, bottom] = side(height, y);
  return {left, top, right, bottom};
}

ColumnRun ComparableColumns(const Rect& comparable, std::span<const ColumnRun> usable, std::int32_t row,
                            std::int64_t x, std::int64_t y) {
  // The sample one place further out than the displaced one decides.
  const std::int64_t outwardX = x > 0 ? x + 1 : x - 1;
  const std::int64_t outwardY = y > 0 ? y + 1 : y - 1;
  const ColumnRun source = usable[static_cast<std::size_t>(row + outwardY)];
  const auto shift = static_cast<std::int32_t>(outwardX);
  return Intersect({comparable.left, comparable.right}, {source.begin - shift, source.end - shift});
}

void RotatePlane(const Plane& plane, double theta, RotationScratch& scratch, const KernelOps& ops) {
  const std::int32_t width = plane.Width(), height = plane.Height();
  const double radians = RadiansFromDegrees(theta);
  const PlaneRotation rotation(width, height, radians);
  const PlaneRotation earlier(width, height, radians - kHalfDegree);
  const PlaneRotation later(width, height, radians + kHalfDegree);

  for (std::int32_t row = 0; row < height; ++row) {
    const auto sample = [&](const SourceLine& line, ColumnRun run, std::int16_t* out) {
      ops.sampleRow(plane.Row(0), width, line, run, out);
      return run;
    };
    std::int16_t* const rotated = scratch.rotated.Row(row);
    const SourceLine line = rotation.Line(row);
    const ColumnRun usable = sample(line, rotation.Usable(line), rotated);
    ZeroOutside(usable, rotated, width);

    std::int16_t* const derivative = scratch.derivative.Row(row);
    std::int16_t* const further = scratch.turnedFurther.data();
    const SourceLine earlierLine = earlier.Line(row), laterLine = later.Line(row);
    const ColumnRun both = Intersect(earlier.Usable(earlierLine), later.Usable(laterLine));
    sample(earlierLine, both, derivative);
    sample(laterLine, both, further);
    for (std::int32_t column = both.begin; column < both.end; ++column)
      derivative[column] = static_cast<std::int16_t>(derivative[column] - further[column]);
    ZeroOutside(both, derivative, width);

    scratch.usable[static_cast<std::size_t>(row)] = Intersect(usable, both);
  }
}

void EstimateLevel(std::span<GaussianPyramidCalcParams> levels, std::size_t level, std::uint32_t coefficients,
                   RotationScratch& scratch, const KernelOps& ops) {
  MotionRecord start = {};
  if (level + 1 < levels.size()) {
    const GaussianPyramidCalcParams& coarser = levels[level + 1];
    start = {coarser.dx, coarser.dy, coarser.theta};
  }
  if (coefficients == static_cast<std::uint32_t>(EstimationCoefficients::XY))
    EstimateTranslation(levels[level], level, start, ops);
  else if (coefficients == static_cast<std::uint32_t>(EstimationCoefficients::XYTheta))
    EstimateRotation(levels[level], level, start, scratch, ops);
}

MotionRecord EstimateMotion(std::span<GaussianPyramidCalcParams> levels, std::uint32_t coefficients,
                            std::uint32_t quality, RotationScratch& scratch, const KernelOps& ops) {
  const std::size_t finest = FinestLevel(quality, levels.size());
  for (std::size_t level = levels.size(); level-- > finest;)
    EstimateLevel(levels, level, coefficients, scratch, ops);

  const GaussianPyramidCalcParams& result = levels[finest];
  // A level above 0 holds its displacement doubled once already.
  const std::int64_t scale = finest > 1 ? std::int64_t{1} << (finest - 1) : 1;
  return {Saturate(result.dx * scale), Saturate(result.dy * scale), result.theta};
}
