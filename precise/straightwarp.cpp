#include "precise/straightwarp.h"

#include <cstring>
#include <limits>

#include "precise/cubicweights.h"
#include "precise/vectors.h"

// A picture that is turned by less than a degree reads its source nearly as it lies. In a row, the phase
// across stays for dozens of columns; in a column, the phase down stays for dozens of rows. So blocks of rows
// are made in strips of a vector's width, from top to bottom. The weights down are kept from row to row,
// those across are the same for all columns of a step, and samples need no shuffling.
//
// Source samples are widened first, a block at a time, since four output rows or more read each. They go into
// the highest bits of 16-bit words, so that the first pass leaves its means in the upper halves of 32 bits.

namespace precise {
namespace {

constexpr int kMaxBits = 14;
constexpr std::int32_t kStep = 2 * kLanes;  // columns of a strip, and words of a vector
constexpr std::int32_t kBlockColumns = 256;

/// Positions are rounded to 1/256 sample.
constexpr int kPhaseShift = kPositionBits - kPhaseBits;
constexpr std::int64_t kOnePhase = std::int64_t{1} << kPhaseShift;

/// Added to widened samples beside -2^15. The weights of a first pass sum to 2^14, so this adds the half of
/// 2^16 that rounds its means.
constexpr int kRounding = 2;

struct Position {
  std::int64_t x, y;
};

Position RoundedAt(const SourceLine& line, std::int32_t column) {
  constexpr std::int64_t kHalf = kOnePhase / 2;
  return {line.startX + column * line.stepX + kHalf, line.startY + column * line.stepY + kHalf};
}

ColumnRun Common(ColumnRun a, ColumnRun b) {
  return {a.begin > b.begin ? a.begin : b.begin, a.end < b.end ? a.end : b.end};
}

/// Source samples from the first to the last, which need not all exist.
struct Extent {
  std::int64_t left = std::numeric_limits<std::int64_t>::max(), top = left;
  std::int64_t right = std::numeric_limits<std::int64_t>::min(), bottom = right;

  void Add(const Position& position) {
    const std::int64_t x = position.x >> kPositionBits, y = position.y >> kPositionBits;
    left = x < left ? x : left;
    right = x > right ? x : right;
    top = y < top ? y : top;
    bottom = y > bottom ? y : bottom;
  }
};

/// A part of a source plane, which beyond the plane's edges goes on. A sample v of n bits is kept as
/// v·2^(16 - n) - 2^15 + kRounding.
class WideBlock {
 public:
  /// Strips read less than a step beyond the extent, at both sides.
  static constexpr std::int32_t kPitch = kBlockColumns + 16 + 2 * kStep, kRows = kMaxWarpedRows + 16;

  /// False where the extent is too large, or too much of it lies off the plane.
  bool Load(const SourcePlane& plane, const Extent& extent) {
    m_left = extent.left;
    m_top = extent.top;
    const std::int64_t begin = extent.left > 0 ? extent.left : 0;
    const std::int64_t end = extent.right < plane.width ? extent.right + 1 : plane.width;
    if (end - begin < kStep || extent.right - extent.left >= kPitch - 2 * kStep ||
        extent.bottom - extent.top >= kRows)
      return false;
    for (std::int64_t y = extent.top; y <= extent.bottom; ++y) {
      const std::int64_t row = y < 0 ? 0 : y < plane.height ? y : plane.height - 1;
      const std::uint8_t* const from = plane.samples + row * plane.strideBytes;
      std::int16_t* const to = m_samples + (y - m_top) * kPitch + kStep - m_left;
      if (plane.bits == 8)
        LoadRow<1>(from, plane.bits, begin, end, to);
      else
        LoadRow<2>(from, plane.bits, begin, end, to);
      for (std::int64_t x = extent.left; x < begin; ++x) to[x] = to[begin];
      for (std::int64_t x = end; x <= extent.right; ++x) to[x] = to[end - 1];
    }
    return true;
  }

  const std::int16_t* At(const Position& position, std::int32_t before) const {
    const std::int64_t x = (position.x >> kPositionBits) - before - m_left;
    const std::int64_t y = (position.y >> kPositionBits) - before - m_top;
    return m_samples + y * kPitch + kStep + x;
  }

 private:
  /// Loads samples begin … end - 1, at least a vector.
  template <int kSize>
  static void LoadRow(const std::uint8_t* from, int bits, std::int64_t begin, std::int64_t end,
                      std::int16_t* to) {
    const auto offset = hn::Set(kHalfWords, 0x8000 + kRounding);
    const auto largest = hn::Set(kHalfWords, static_cast<std::uint16_t>(LargestSample(bits)));
    const auto load = [&](std::int64_t i) {
      if constexpr (kSize == 1) {
        constexpr hn::Rebind<std::uint8_t, decltype(kHalfWords)> kNarrow;
        const auto samples = hn::PromoteTo(kHalfWords, hn::LoadU(kNarrow, from + i));
        hn::StoreU(hn::BitCast(kShorts, hn::Add(hn::ShiftLeft<8>(samples), offset)), kShorts, to + i);
      } else {
        const auto samples = hn::Min(hn::BitCast(kHalfWords, hn::LoadU(kBytes, from + 2 * i)), largest);
        hn::StoreU(hn::BitCast(kShorts, hn::Add(hn::ShiftLeftSame(samples, 16 - bits), offset)), kShorts,
                   to + i);
      }
    };
    for (std::int64_t i = begin; i < end - kStep; i += kStep) load(i);
    load(end - kStep);
  }

  std::int64_t m_left = 0, m_top = 0;
  std::int16_t m_samples[std::ptrdiff_t{kRows} * kPitch] = {};
};

/// The high halves of both: those of `odd` above those of `even`.
Shorts HighHalves(Ints even, Ints odd) {
  return hn::OddEven(hn::BitCast(kShorts, odd),
                     hn::BitCast(kShorts, hn::ShiftRight<16>(hn::BitCast(kWords, even))));
}

/// Positions down of a strip, of its even columns and of its odd ones, in 2^-32 of a sample.
struct Fractions {
  Words even, odd;
};

Ints PhasesOf(Words fractions) { return hn::BitCast(kInts, hn::ShiftRight<kPhaseShift>(fractions)); }

/// Makes samples by four taps across and four down.
template <int kSize>
class Cubic {
 public:
  static constexpr std::int32_t kTaps = 4, kBefore = 1;

  struct Across {
    Shorts near, far;
  };
  struct Down {
    Shorts evenNear, evenFar, oddNear, oddFar;
  };

  // Weights sum to 2^14, so the 2^13 that is missing from the first pass's means is missing 2^14 times.
  explicit Cubic(int bits)
      : m_drop(kMaxBits - bits), m_offset(Kept(kInts, (1 << (13 + kWeightBits)) + (1 << (27 - bits)))) {}

  Across AcrossAt(std::size_t phase) const {
    std::int32_t near, far;
    std::memcpy(&near, &kCubicWeights[phase][0], sizeof near);
    std::memcpy(&far, &kCubicWeights[phase][2], sizeof far);
    return {hn::BitCast(kShorts, hn::Set(kInts, near)), hn::BitCast(kShorts, hn::Set(kInts, far))};
  }

  Down DownAt(const Fractions& y) const {
    const Shorts phases = hn::ReorderDemote2To(kShorts, PhasesOf(y.even), PhasesOf(y.odd));
    const Weights weights = m_weights.At(phases);
    return {hn::InterleaveLower(kShorts, weights.first, weights.second),
            hn::InterleaveLower(kShorts, weights.third, weights.fourth),
            hn::InterleaveUpper(kShorts, weights.first, weights.second),
            hn::InterleaveUpper(kShorts, weights.third, weights.fourth)};
  }

  Shorts Samples(const std::int16_t* taps, const Across& across, const Down& down) const {
    const Ints even = Sums(taps, across, down.evenNear, down.evenFar);
    const Ints odd = Sums(taps + 1, across, down.oddNear, down.oddFar);
    const Shorts sums = hn::OddEven(hn::BitCast(kShorts, hn::ShiftLeft<16 - kWeightBits>(odd)),
                                    hn::BitCast(kShorts, hn::ShiftRight<kWeightBits>(even)));
    if constexpr (kSize == 1)
      return hn::ShiftRight<kMaxBits - 8>(sums);
    else
      return hn::ShiftRightSame(sums, m_drop);
  }

 private:
  static Ints InRow(const std::int16_t* taps, const Across& across) {
    return hn::Add(SumsOfPairs(hn::LoadU(kShorts, taps), across.near),
                   SumsOfPairs(hn::LoadU(kShorts, taps + 2), across.far));
  }

  Ints Sums(const std::int16_t* taps, const Across& across, Shorts near, Shorts far) const {
    constexpr std::ptrdiff_t kPitch = WideBlock::kPitch;
    const Shorts upper = HighHalves(InRow(taps, across), InRow(taps + kPitch, across));
    const Shorts lower = HighHalves(InRow(taps + 2 * kPitch, across), InRow(taps + 3 * kPitch, across));
    return hn::Add(hn::Add(SumsOfPairs(upper, near), m_offset), SumsOfPairs(lower, far));
  }

  SharpWeights m_weights;
  int m_drop;
  Ints m_offset;
};

/// Makes samples by two taps across and two down.
template <int kSize>
class Linear {
 public:
  static constexpr std::int32_t kTaps = 2, kBefore = 0;

  using Across = Shorts;
  struct Down {
    Ints even, odd;
  };

  // Weights sum to 2^16.
  explicit Linear(int bits)
      : m_drop(16 - bits),
        m_offset(Kept(kWords, (1u << 31) - (std::uint32_t{kRounding} << 16) + (1u << (31 - bits)))) {}

  Across AcrossAt(std::size_t phase) const {
    const auto second = static_cast<std::int32_t>(phase), first = static_cast<std::int32_t>(kPhases) - second;
    return hn::BitCast(kShorts, hn::Set(kInts, second << 16 | first));
  }

  Down DownAt(const Fractions& y) const { return {PhasesOf(y.even), PhasesOf(y.odd)}; }

  Shorts Samples(const std::int16_t* taps, const Across& across, const Down& down) const {
    const Shorts sums = HighHalves(Sums(taps, across, down.even), Sums(taps + 1, across, down.odd));
    return hn::BitCast(kShorts, hn::ShiftRightSame(hn::BitCast(kHalfWords, sums), m_drop));
  }

 private:
  Ints Sums(const std::int16_t* taps, const Across& across, Ints down) const {
    const Ints upper = SumsOfPairs(hn::LoadU(kShorts, taps), across);
    const Ints lower = SumsOfPairs(hn::LoadU(kShorts, taps + WideBlock::kPitch), across);
    return hn::Add(hn::Add(hn::ShiftLeft<kPhaseBits>(upper), hn::BitCast(kInts, m_offset)),
                   hn::Mul(hn::Sub(lower, upper), down));
  }

  int m_drop;
  Words m_offset;
};

/// For how many columns a position keeps its bits above the lowest.
std::int64_t ColumnsUntilChange(std::int64_t position, std::int64_t step, int lowBits) {
  const std::int64_t size = std::int64_t{1} << lowBits, rest = position & (size - 1);
  if (step == 0) return std::numeric_limits<std::int64_t>::max();
  return step > 0 ? (size - 1 - rest) / step + 1 : rest / -step + 1;
}

/// Makes the rows of a block, in strips of kStep columns.
template <template <int kSize> class Sampler, int kSize>
class Strips {
 public:
  using Of = Sampler<kSize>;

  Strips(const SourcePlane& plane, const SourceLine& line)
      : m_drift(line.stepX - (std::int64_t{1} << kPositionBits)),
        m_stepY(line.stepY),
        m_sampler(plane.bits),
        m_largest(hn::Set(kShorts, static_cast<std::int16_t>(LargestSample(plane.bits)))) {
    HWY_ALIGN std::uint32_t even[kLanes];
    for (std::int32_t i = 0; i < kLanes; ++i) even[i] = static_cast<std::uint32_t>(2 * i * m_stepY);
    m_even = hn::Load(kWords, even);
    m_odd = hn::Add(m_even, hn::Set(kWords, static_cast<std::uint32_t>(m_stepY)));
  }

  /// Begins with another block's first column.
  void Begin(std::int32_t column) {
    m_column = column;
    for (HeldWeights& held : m_held) held.size = 0;
  }

  /// Writes the row's covered columns up to the block's end, by pieces with the same phase across that read
  /// the same source rows.
  void WarpRow(const WideBlock& block, const WarpedRow& row) {
    const ColumnRun run = Common(row.covered, {m_column, m_column + kBlockColumns});
    const auto y = static_cast<std::uint32_t>(RoundedAt(row.line, m_column).y);
    for (std::int32_t begin = run.begin; begin < run.end;) {
      const Position at = RoundedAt(row.line, begin);
      std::int64_t count = run.end - begin;
      for (const std::int64_t most :
           {ColumnsUntilChange(at.x, m_drift, kPhaseShift), ColumnsUntilChange(at.y, m_stepY, kPositionBits)})
        count = most < count ? most : count;
      const std::int32_t end = begin + static_cast<std::int32_t>(count);
      WarpPiece(block.At(at, Of::kBefore) - (begin - m_column), y,
                m_sampler.AcrossAt(static_cast<std::size_t>(at.x >> kPhaseShift) % kPhases),
                {begin - m_column, end - m_column}, row.covered.end - m_column,
                row.out + std::ptrdiff_t{m_column} * kSize);
      begin = end;
    }
  }

 private:
  /// Weights down of a strip, which are those of `size` positions from `first` on.
  struct HeldWeights {
    std::uint32_t first = 0, size = 0;
    typename Of::Down down = {};
  };

  void WarpPiece(const std::int16_t* taps, std::uint32_t y, const typename Of::Across& across,
                 ColumnRun piece, std::int32_t coveredEnd, std::uint8_t* out) {
    for (std::int32_t column = piece.begin / kStep * kStep; column < piece.end; column += kStep) {
      HeldWeights& held = m_held[column / kStep];
      const std::uint32_t position = y + static_cast<std::uint32_t>(column * m_stepY);
      if (position - held.first >= held.size) Hold(position, held);
      const Shorts samples = m_sampler.Samples(taps + column, across, held.down);
      std::uint8_t* const to = out + std::ptrdiff_t{column} * kSize;
      // What is written behind the piece, the next one writes anew.
      if (column + kStep > coveredEnd)
        StorePart(samples, piece.begin - column, piece.end - column, to);
      else if (column < piece.begin)
        StoreFrom(piece.begin - column, samples, to);
      else
        Store(samples, to);
    }
  }

  void Hold(std::uint32_t position, HeldWeights& held) const {
    const Words start = hn::Set(kWords, position);
    const Fractions y = {hn::Add(start, m_even), hn::Add(start, m_odd)};
    const Words rest = hn::Set(kWords, static_cast<std::uint32_t>(kOnePhase - 1));
    const Words even = hn::And(y.even, rest), odd = hn::And(y.odd, rest);
    const std::uint32_t least = hn::GetLane(hn::MinOfLanes(kWords, hn::Min(even, odd)));
    const std::uint32_t most = hn::GetLane(hn::MaxOfLanes(kWords, hn::Max(even, odd)));
    held.first = position - least;
    held.size = static_cast<std::uint32_t>(kOnePhase) - (most - least);
    held.down = m_sampler.DownAt(y);
  }

  /// The samples as they are written, in the lowest bytes.
  auto Bytes(Shorts samples) const {
    if constexpr (kSize == 1) {
      return hn::DemoteTo(kOutputs, samples);
    } else {
      return hn::BitCast(kOutputs, hn::Min(hn::Max(samples, hn::Zero(kShorts)), m_largest));
    }
  }

  void Store(Shorts samples, std::uint8_t* out) const { hn::StoreU(Bytes(samples), kOutputs, out); }

  void StoreFrom(std::int32_t begin, Shorts samples, std::uint8_t* out) const {
    const auto isBefore = hn::FirstN(kOutputs, static_cast<std::size_t>(begin) * kSize);
    hn::StoreU(hn::IfThenElse(isBefore, hn::LoadU(kOutputs, out), Bytes(samples)), kOutputs, out);
  }

  void StorePart(Shorts samples, std::int32_t begin, std::int32_t end, std::uint8_t* out) const {
    std::uint8_t bytes[kStep * kSize];
    Store(samples, bytes);
    for (std::int32_t i = begin > 0 ? begin * kSize : 0; i < (end < kStep ? end : kStep) * kSize; ++i)
      out[i] = bytes[i];
  }

  static constexpr hn::CappedTag<std::uint8_t, kStep* kSize> kOutputs = {};

  std::int64_t m_drift, m_stepY;
  Words m_even, m_odd;
  Of m_sampler;
  Shorts m_largest;
  std::int32_t m_column = 0;
  HeldWeights m_held[kBlockColumns / kStep];
};

/// Where all rows together begin and end.
ColumnRun Union(const WarpedRow* rows, std::int32_t count) {
  ColumnRun all = {std::numeric_limits<std::int32_t>::max(), 0};
  for (const WarpedRow* row = rows; row != rows + count; ++row) {
    const ColumnRun run = row->covered;
    if (run.begin >= run.end) continue;
    all = {run.begin < all.begin ? run.begin : all.begin, run.end > all.end ? run.end : all.end};
  }
  return all;
}

template <template <int kSize> class Sampler, int kSize>
bool WarpBlocks(const SourcePlane& plane, const WarpedRow* rows, std::int32_t count) {
  using Of = Sampler<kSize>;
  Strips<Sampler, kSize> strips(plane, rows->line);
  WideBlock block;
  const ColumnRun all = Union(rows, count);
  for (std::int32_t begin = all.begin; begin < all.end; begin += kBlockColumns) {
    const ColumnRun columns = Common({begin, begin + kBlockColumns}, all);
    Extent extent;
    for (const WarpedRow* row = rows; row != rows + count; ++row) {
      const ColumnRun run = Common(row->covered, columns);
      if (run.begin >= run.end) continue;
      extent.Add(RoundedAt(row->line, run.begin));
      extent.Add(RoundedAt(row->line, run.end - 1));
    }
    if (extent.left > extent.right) continue;
    constexpr std::int32_t kAfter = Of::kTaps - 1 - Of::kBefore;
    if (!block.Load(plane, {extent.left - Of::kBefore, extent.top - Of::kBefore, extent.right + kAfter,
                            extent.bottom + kAfter}))
      return false;
    strips.Begin(begin);
    for (const WarpedRow* row = rows; row != rows + count; ++row) strips.WarpRow(block, *row);
  }
  return true;
}

template <template <int kSize> class Sampler>
bool Warp(const SourcePlane& plane, const WarpedRow* rows, std::int32_t count) {
  // Most phases stay for two steps or more.
  constexpr std::int64_t kOne = std::int64_t{1} << kPositionBits;
  constexpr std::int64_t limitX = kOnePhase / (2 * kStep), limitY = kOne / (2 * kStep);
  const std::int64_t drift = rows->line.stepX - kOne, stepY = rows->line.stepY;
  if (plane.bits > kMaxBits || drift < -limitX || drift > limitX || stepY < -limitY || stepY > limitY)
    return false;
  return plane.bits == 8 ? WarpBlocks<Sampler, 1>(plane, rows, count)
                         : WarpBlocks<Sampler, 2>(plane, rows, count);
}

}  // namespace

bool WarpStraightBilinear(const SourcePlane& plane, const WarpedRow* rows, std::int32_t count) {
  return Warp<Linear>(plane, rows, count);
}

bool WarpStraightBicubic(const SourcePlane& plane, const WarpedRow* rows, std::int32_t count) {
  return Warp<Cubic>(plane, rows, count);
}

}  // namespace precise
