#include "kernel/motionestimation.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <utility>

#include "kernel/leastsquares.h"
#include "kernel/sampling.h"

namespace {

constexpr int kMaxIterations = 30;
constexpr int kMaxOscillations = 2;
constexpr double kHalfDegree = 0.01745329251994 * 0.5;
constexpr std::size_t kCoarsestRotationLevel = 1;

std::int32_t Saturate(std::int64_t value) {
  return static_cast<std::int32_t>(std::clamp<std::int64_t>(value, std::numeric_limits<std::int32_t>::min(),
                                                            std::numeric_limits<std::int32_t>::max()));
}

/// One axis of the displacement. It moves in whole samples and remembers the last move.
struct Axis {
  std::int64_t position;
  double update = 0;
  std::int64_t step = 0;
  int sign = 0;

  /// Rounds the update away from zero to whole samples and moves by them. True when the direction reversed,
  /// or when both this update and the last one are zero.
  bool Move(double newUpdate, int newSign) {
    const bool turnedBack = sign == -newSign;
    update = newUpdate;
    sign = newSign;
    step = newSign * static_cast<std::int64_t>(std::ceil(std::abs(newUpdate)));
    position += step;
    return turnedBack;
  }

  /// The position, one sample back if the last whole step overshot its update by more than half a sample.
  std::int32_t FinestResult() const {
    const bool overshot = std::abs(update - static_cast<double>(step)) > 0.5;
    return Saturate(overshot ? position - sign : position);
  }

  /// The position with the real update in place of the last whole step, doubled for the next finer level.
  std::int32_t CoarseResult() const {
    return Saturate(2 * static_cast<std::int64_t>(static_cast<double>(position - step) + update));
  }

  std::int32_t Result(std::size_t level) const { return level == 0 ? FinestResult() : CoarseResult(); }
};

int SignOrZero(double value) { return value > 0 ? 1 : value < 0 ? -1 : 0; }
/// The rotation estimator takes zero for negative.
int SignOf(double value) { return value > 0 ? 1 : -1; }

/// A row of a plane and its two neighbours, from a column on.
ThreeRows RowsAround(const Plane& plane, std::int64_t row, std::int64_t column) {
  return {plane.Row(row - 1) + column, plane.Row(row) + column, plane.Row(row + 1) + column};
}

TranslationSums SumTranslation(const GaussianPyramidCalcParams& level, std::int64_t x, std::int64_t y,
                               const KernelOps& ops) {
  const Rect window = ComparableSamples(level.width, level.height, x, y);
  TranslationSums sums;
  if (window.left >= window.right) return sums;
  for (std::int32_t row = window.top; row < window.bottom; ++row)
    ops.addTranslationRow(level.previousPlane.Row(row) + window.left,
                          RowsAround(level.currentPlane, row + y, window.left + x),
                          window.right - window.left, sums);
  return sums;
}

/// The updates of the displacements tried so far. The estimator often tries a displacement again; its sums,
/// and so its update, would be the same.
class KnownUpdates {
 public:
  const MotionUpdate* Find(std::int64_t x, std::int64_t y) const {
    const auto end = m_entries.begin() + m_count;
    const auto found = std::find_if(m_entries.begin(), end,
                                    [&](const Entry& entry) { return entry.x == x && entry.y == y; });
    return found == end ? nullptr : &found->update;
  }
  const MotionUpdate& Add(std::int64_t x, std::int64_t y, const MotionUpdate& update) {
    Entry& entry = m_entries[static_cast<std::size_t>(m_count++)];
    entry = {x, y, update};
    return entry.update;
  }

 private:
  struct Entry {
    std::int64_t x, y;
    MotionUpdate update;
  };
  std::array<Entry, kMaxIterations> m_entries;
  std::ptrdiff_t m_count = 0;
};

/// Returns the number of iterations.
int EstimateTranslation(GaussianPyramidCalcParams& level, std::size_t index, MotionRecord start,
                        const KernelOps& ops) {
  Axis x = {start.dx}, y = {start.dy};
  KnownUpdates known;
  int iterations = 0, oscillations = 0;
  bool isSettled = false;
  for (; iterations < kMaxIterations && oscillations < kMaxOscillations && !isSettled; ++iterations) {
    const MotionUpdate* update = known.Find(x.position, y.position);
    if (!update)
      update = &known.Add(x.position, y.position,
                          SolveTranslation(SumTranslation(level, x.position, y.position, ops)));
    const bool xTurned = x.Move(update->x, SignOrZero(update->x));
    const bool yTurned = y.Move(update->y, SignOrZero(update->y));
    if (xTurned && yTurned) ++oscillations;
    isSettled = x.step == 0 && y.step == 0;  // every further iteration would repeat this one
  }
  level.dx = x.Result(index);
  level.dy = y.Result(index);
  return iterations;
}

/// Turns a plane about its centre. Positions have `m_precision` + 1 fraction bits.
class PlaneRotation {
 public:
  PlaneRotation(std::int32_t width, std::int32_t height, double radians)
      : m_width(width),
        m_height(height),
        m_precision(RotationBits(width, height, 21)),
        m_angle(radians, m_precision) {}

  SourceLine Line(std::int32_t row) const {
    const std::int64_t one = std::int64_t{1} << m_precision;
    const std::int64_t spanX = m_width - 1, spanY = m_height - 1;
    return {-2 * row * m_angle.sine - spanX * m_angle.cosine + spanY * m_angle.sine + spanX * one,
            2 * row * m_angle.cosine - spanX * m_angle.sine - spanY * m_angle.cosine + spanY * one,
            2 * m_angle.cosine, 2 * m_angle.sine, m_precision + 1};
  }

  /// The columns of a row of the turned plane that have a source.
  ColumnRun Usable(std::int32_t row) const {
    return UsableColumns(Line(row), m_width, m_height, {0, m_width});
  }

 private:
  std::int32_t m_width, m_height;
  int m_precision;
  FixedRotation m_angle;
};

/// Rotations of a plane by the tested angle and by half a degree less and more.
struct ThreeRotations {
  ThreeRotations(std::int32_t width, std::int32_t height, double theta)
      : exact(width, height, RadiansFromDegrees(theta)),
        less(width, height, RadiansFromDegrees(theta) - kHalfDegree),
        more(width, height, RadiansFromDegrees(theta) + kHalfDegree) {}

  RotationScratch::RowRuns Usable(std::int32_t row) const {
    return {exact.Usable(row), Intersect(less.Usable(row), more.Usable(row))};
  }

  PlaneRotation exact, less, more;
};

/// Makes the rows of a rotated plane in rising order, as the sums need them. Samples without a source are
/// zero.
class RotatedRows {
 public:
  RotatedRows(const Plane& plane, const ThreeRotations& rotations, RotationScratch& scratch,
              std::int32_t firstRow, const KernelOps& ops)
      : m_plane(plane), m_rotations(rotations), m_scratch(scratch), m_nextRow(firstRow), m_ops(ops) {}

  /// The row with its neighbour rows, and the row turned less and more. Of the last two, only the columns of
  /// `run` are made.
  RotatedRow Get(std::int32_t row, ColumnRun run) {
    for (; m_nextRow <= row + 1; ++m_nextRow)
      Sample(m_rotations.exact.Line(m_nextRow), RunsOf(m_nextRow).exact, {0, m_plane.Width()},
             NewestRow(m_nextRow));
    std::int16_t* const less = m_scratch.rows.Row(kLessRow);
    std::int16_t* const more = m_scratch.rows.Row(kMoreRow);
    Sample(m_rotations.less.Line(row), RunsOf(row).turned, run, less);
    Sample(m_rotations.more.Line(row), RunsOf(row).turned, run, more);
    return {{NewestRow(row - 1), NewestRow(row), NewestRow(row + 1)}, less, more};
  }

 private:
  static constexpr std::int32_t kNewestRows = 3, kLessRow = 3, kMoreRow = 4;

  const RotationScratch::RowRuns& RunsOf(std::int32_t row) const {
    return m_scratch.usable[static_cast<std::size_t>(row)];
  }
  /// The memory of one of the three newest rows.
  std::int16_t* NewestRow(std::int32_t row) { return m_scratch.rows.Row(row % kNewestRows); }

  void Sample(const SourceLine& line, ColumnRun usable, ColumnRun wanted, std::int16_t* out) const {
    const ColumnRun run = Intersect(usable, wanted);
    const std::int32_t begin = std::min(run.begin, wanted.end), end = std::max(run.end, begin);
    std::fill(out + wanted.begin, out + begin, std::int16_t{0});
    m_ops.sampleRow(m_plane.Row(0), m_plane.Width(), line, {begin, end}, out);
    std::fill(out + end, out + wanted.end, std::int16_t{0});
  }

  const Plane& m_plane;
  const ThreeRotations& m_rotations;
  RotationScratch& m_scratch;
  std::int32_t m_nextRow;
  const KernelOps& m_ops;
};

/// The columns of `comparable` that count in one row at displacement (x, y).
ColumnRun ComparableColumns(const Rect& comparable, std::span<const RotationScratch::RowRuns> usable,
                            std::int32_t row, std::int32_t x, std::int32_t y) {
  // A sample counts if the rotated planes have a source one sample beyond its displaced position: further in
  // the direction of the displacement, on both axes. The direction of zero is negative.
  const std::int32_t outwardX = x > 0 ? x + 1 : x - 1;
  const std::int32_t outwardY = y > 0 ? y + 1 : y - 1;
  const RotationScratch::RowRuns& runs = usable[static_cast<std::size_t>(row + outwardY)];
  const ColumnRun source = Intersect(runs.exact, runs.turned);
  return Intersect({comparable.left, comparable.right}, {source.begin - outwardX, source.end - outwardX});
}

RotationSums SumRotation(const GaussianPyramidCalcParams& level, double theta, RotationScratch& scratch,
                         std::int64_t x, std::int64_t y, const KernelOps& ops) {
  const Rect window = ComparableSamples(level.width, level.height, x, y);
  RotationSums sums;
  if (window.left >= window.right || window.top >= window.bottom) return sums;

  const ThreeRotations rotations(level.width, level.height, theta);
  for (std::int32_t row = 0; row < level.height; ++row)
    scratch.usable[static_cast<std::size_t>(row)] = rotations.Usable(row);
  // The window is not empty, so the displacement is smaller than the plane.
  const auto right = static_cast<std::int32_t>(x), up = static_cast<std::int32_t>(y);
  RotatedRows rotated(level.currentPlane, rotations, scratch, window.top + up - 1, ops);
  for (std::int32_t row = window.top; row < window.bottom; ++row) {
    const ColumnRun run = ComparableColumns(window, scratch.usable, row, right, up);
    if (run.begin >= run.end) continue;
    RotatedRow current = rotated.Get(row + up, {run.begin + right, run.end + right});
    for (const std::int16_t*& samples : current.samples) samples += run.begin + right;
    current.turnedLess += run.begin + right;
    current.turnedMore += run.begin + right;
    ops.addRotationRow(level.previousPlane.Row(row) + run.begin, current, run.end - run.begin, sums);
  }
  return sums;
}

/// Returns the number of iterations.
int EstimateRotation(GaussianPyramidCalcParams& level, std::size_t index, MotionRecord start,
                     RotationScratch& scratch, const KernelOps& ops) {
  Axis x = {start.dx}, y = {start.dy};
  double theta = start.theta, previousTheta = start.theta;
  int thetaSign = 0, iterations = 0, oscillations = 0;
  bool isSettled = false;
  for (; iterations < kMaxIterations && oscillations < kMaxOscillations && !isSettled; ++iterations) {
    const MotionUpdate update =
        SolveRotation(SumRotation(level, theta, scratch, x.position, y.position, ops));
    const bool thetaTurned = thetaSign == -SignOf(update.theta);
    const bool xTurned = x.Move(update.x, SignOf(update.x));
    const bool yTurned = y.Move(update.y, SignOf(update.y));
    if (thetaTurned && xTurned && yTurned) ++oscillations;
    thetaSign = SignOf(update.theta);
    previousTheta = theta;
    theta += update.theta;
    isSettled = x.step == 0 && y.step == 0 && theta == previousTheta;
  }
  level.dx = x.Result(index);
  level.dy = y.Result(index);
  level.theta = index <= kCoarsestRotationLevel ? (previousTheta + theta) / 2 : 0.0;
  return iterations;
}

/// Estimates one level's motion, starting from that of the next coarser level, and stores it in the level.
void EstimateLevel(std::span<GaussianPyramidCalcParams> levels, std::size_t index, std::uint32_t coefficients,
                   RotationScratch& scratch, const KernelOps& ops) {
  MotionRecord start = {};
  if (index + 1 < levels.size()) {
    const GaussianPyramidCalcParams& coarser = levels[index + 1];
    start = {coarser.dx, coarser.dy, coarser.theta};
  }
  GaussianPyramidCalcParams& level = levels[index];
  if (coefficients == static_cast<std::uint32_t>(EstimationCoefficients::XY))
    level.iterations = EstimateTranslation(level, index, start, ops);
  else if (coefficients == static_cast<std::uint32_t>(EstimationCoefficients::XYTheta))
    level.iterations = EstimateRotation(level, index, start, scratch, ops);
}

}  // namespace

RotationScratch::RotationScratch(std::int32_t width, std::int32_t height)
    : usable(static_cast<std::size_t>(height)), rows(width, 5) {}

std::size_t FinestLevel(std::uint32_t quality) { return quality == 2 ? 1 : quality == 3 ? 2 : 0; }

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

MotionRecord EstimateMotion(std::span<GaussianPyramidCalcParams> levels, std::uint32_t coefficients,
                            std::uint32_t quality, RotationScratch& scratch, const KernelOps& ops) {
  const std::size_t finest = std::min(FinestLevel(quality), levels.size() - 1);
  for (std::size_t level = levels.size(); level-- > finest;)
    EstimateLevel(levels, level, coefficients, scratch, ops);

  const GaussianPyramidCalcParams& result = levels[finest];
  // Levels above 0 store their displacement doubled.
  const std::int64_t scale = finest > 1 ? std::int64_t{1} << (finest - 1) : 1;
  return {Saturate(result.dx * scale), Saturate(result.dy * scale), result.theta};
}
