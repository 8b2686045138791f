#include "precise/straightwarp.h"

#include <cstring>
#include <limits>

#include "precise/vectors.h"

// A row that reads the source nearly as it lies falls into pieces of dozens of columns. Within a piece all
// columns have the same phase across and read the same source rows; only the phase down changes. So samples
// need no shuffling and the weights across are made once a piece.
//
// Source samples are widened first, a block at a time, since four output rows or more read each. They go into
// the highest bits of 16-bit words, so that the first pass leaves its means in the upper halves of 32 bits.

namespace precise {
namespace {

constexpr std::int32_t kMaxBits = 14;
constexpr std::int32_t kStep = 2 * kLanes;  // outputs of a step

/// Positions are rounded to 1/256 sample.
constexpr int kPhaseShift = kPositionBits - 8;
constexpr std::int64_t kHalfPhase = std::int64_t{1} << (kPhaseShift - 1);

/// Added to widened samples beside -2^15. The weights of a first pass sum to 2^14, so this adds the half of
/// 2^16 that rounds its means.
constexpr int kRounding = 2;

struct Position {
  std::int64_t x, y;
};

Position PositionAt(const SourceLine& line, std::int32_t column) {
  return {line.startX + column * line.stepX + kHalfPhase, line.startY + column * line.stepY + kHalfPhase};
}

/// Source samples from the first to the last.
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

/// A part of a source plane. A sample v of n bits is kept as v·2^(16 - n) - 2^15 + kRounding.
class WideBlock {
 public:
  static constexpr std::int32_t kPitch = 288, kRows = 48;
  static constexpr std::int32_t kVector = hn::MaxLanes(kShorts);

  /// False where the extent is too large.
  bool Load(const SourcePlane& plane, const Extent& extent) {
    std::int64_t width = extent.right - extent.left + 1;
    width = width < kVector ? kVector : width;
    const std::int64_t height = extent.bottom - extent.top + 1;
    if (width > plane.width || width + kVector > kPitch || height > kRows) return false;
    m_left = extent.left < plane.width - width ? extent.left : plane.width - width;
    m_top = extent.top;
    const int size = plane.bits == 8 ? 1 : 2;
    for (std::int64_t row = 0; row < height; ++row) {
      const std::uint8_t* const from = plane.samples + (m_top + row) * plane.strideBytes + m_left * size;
      if (size == 1)
        LoadRow<1>(from, plane.bits, width, m_samples + row * kPitch);
      else
        LoadRow<2>(from, plane.bits, width, m_samples + row * kPitch);
    }
    return true;
  }

  const std::int16_t* At(std::int64_t x, std::int64_t y) const {
    return m_samples + (y - m_top) * kPitch + (x - m_left);
  }

 private:
  /// One vector more is written, which steps at the row's end read beyond the block.
  template <int kSize>
  static void LoadRow(const std::uint8_t* from, int bits, std::int64_t count, std::int16_t* to) {
    const auto offset = hn::Set(kHalfWords, 0x8000 + kRounding);
    const auto largest = hn::Set(kHalfWords, static_cast<std::uint16_t>(LargestSample(bits)));
    const auto widened = [&](std::int64_t i) {
      if constexpr (kSize == 1) {
        constexpr hn::Rebind<std::uint8_t, decltype(kHalfWords)> kNarrow;
        return hn::Add(hn::ShiftLeft<8>(hn::PromoteTo(kHalfWords, hn::LoadU(kNarrow, from + i))), offset);
      } else {
        const auto samples = hn::BitCast(kHalfWords, hn::LoadU(kBytes, from + 2 * i));
        return hn::Add(hn::ShiftLeftSame(hn::Min(samples, largest), 16 - bits), offset);
      }
    };
    for (std::int64_t i = 0; i < count - kVector; i += kVector)
      hn::StoreU(hn::BitCast(kShorts, widened(i)), kShorts, to + i);
    const Shorts last = hn::BitCast(kShorts, widened(count - kVector));
    hn::StoreU(last, kShorts, to + count - kVector);
    hn::StoreU(last, kShorts, to + count);
  }

  std::int64_t m_left = 0, m_top = 0;
  std::int16_t m_samples[std::ptrdiff_t{kRows} * kPitch];
};

/// High halves of both: those of `odd` above those of `even`.
Shorts HighHalves(Ints even, Ints odd) {
  return hn::OddEven(hn::BitCast(kShorts, odd),
                     hn::BitCast(kShorts, hn::ShiftRight<16>(hn::BitCast(kWords, even))));
}

/// Makes samples by four taps across and four down.
class Cubic {
 public:
  static constexpr std::int32_t kTaps = 4, kBefore = 1;

  // Weights sum to 2^14, so the 2^13 that is missing from the first pass's means is missing 2^14 times.
  explicit Cubic(int bits)
      : m_drop(kMaxBits - bits), m_offset(Kept(kInts, (1 << (13 + kWeightBits)) + (1 << (27 - bits)))) {}

  void SetPhaseAcross(std::int16_t phase) {
    const Weights weights = m_weights.At(hn::Set(kShorts, phase));
    m_near = hn::InterleaveLower(kShorts, weights.first, weights.second);
    m_far = hn::InterleaveLower(kShorts, weights.third, weights.fourth);
  }

  /// Of two vectors of phases in 2^32, those of even columns and those of odd ones.
  Shorts Samples(const std::int16_t* taps, Words even, Words odd) const {
    const auto phases = [](Words position) { return hn::BitCast(kInts, hn::ShiftRight<24>(position)); };
    const Weights down = m_weights.At(hn::ReorderDemote2To(kShorts, phases(even), phases(odd)));
    const Ints evenSums = Sums(taps, hn::InterleaveLower(kShorts, down.first, down.second),
                               hn::InterleaveLower(kShorts, down.third, down.fourth));
    const Ints oddSums = Sums(taps + 1, hn::InterleaveUpper(kShorts, down.first, down.second),
                              hn::InterleaveUpper(kShorts, down.third, down.fourth));
    const Shorts sums = hn::OddEven(hn::BitCast(kShorts, hn::ShiftLeft<16 - kWeightBits>(oddSums)),
                                    hn::BitCast(kShorts, hn::ShiftRight<kWeightBits>(evenSums)));
    return hn::ShiftRightSame(sums, m_drop);
  }

 private:
  Ints Across(const std::int16_t* taps) const {
    return hn::Add(SumsOfPairs(hn::LoadU(kShorts, taps), m_near),
                   SumsOfPairs(hn::LoadU(kShorts, taps + 2), m_far));
  }

  Ints Sums(const std::int16_t* taps, Shorts near, Shorts far) const {
    const Shorts upper = HighHalves(Across(taps), Across(taps + WideBlock::kPitch));
    const Shorts lower =
        HighHalves(Across(taps + 2 * WideBlock::kPitch), Across(taps + 3 * WideBlock::kPitch));
    return hn::Add(hn::Add(SumsOfPairs(upper, near), m_offset), SumsOfPairs(lower, far));
  }

  SharpWeights m_weights;
  Shorts m_near = hn::Zero(kShorts), m_far = m_near;
  int m_drop;
  Ints m_offset;
};

/// Makes samples by two taps across and two down.
class Linear {
 public:
  static constexpr std::int32_t kTaps = 2, kBefore = 0;

  // Weights sum to 2^16.
  explicit Linear(int bits)
      : m_drop(16 - bits),
        m_offset(Kept(kWords, (1u << 31) - (std::uint32_t{kRounding} << 16) + (1u << (31 - bits)))) {}

  void SetPhaseAcross(std::int16_t phase) {
    m_weights =
        hn::OddEven(hn::Set(kShorts, phase), hn::Set(kShorts, static_cast<std::int16_t>(256 - phase)));
  }

  Shorts Samples(const std::int16_t* taps, Words even, Words odd) const {
    const auto sums = hn::BitCast(kHalfWords, HighHalves(Sums(taps, even), Sums(taps + 1, odd)));
    return hn::BitCast(kShorts, hn::ShiftRightSame(sums, m_drop));
  }

 private:
  Ints Across(const std::int16_t* taps) const { return SumsOfPairs(hn::LoadU(kShorts, taps), m_weights); }

  Ints Sums(const std::int16_t* taps, Words position) const {
    const Ints upper = Across(taps), lower = Across(taps + WideBlock::kPitch);
    const Ints down = hn::BitCast(kInts, hn::ShiftRight<24>(position));
    return hn::Add(hn::Add(hn::ShiftLeft<8>(upper), hn::BitCast(kInts, m_offset)),
                   hn::Mul(hn::Sub(lower, upper), down));
  }

  Shorts m_weights = hn::Zero(kShorts);
  int m_drop;
  Words m_offset;
};

/// For how many columns a position keeps its bits above the lowest.
std::int64_t ColumnsUntilChange(std::int64_t position, std::int64_t step, int lowBits) {
  const std::int64_t size = std::int64_t{1} << lowBits, rest = position & (size - 1);
  if (step == 0) return std::numeric_limits<std::int64_t>::max();
  return step > 0 ? (size - 1 - rest) / step + 1 : rest / -step + 1;
}

/// Makes the pieces of rows.
template <class Sampler, int kSize>
class Pieces {
 public:
  Pieces(const SourcePlane& plane, std::int64_t stepY)
      : m_stepY(stepY),
        m_sampler(plane.bits),
        m_largest(hn::Set(kShorts, static_cast<std::int16_t>(LargestSample(plane.bits)))) {
    HWY_ALIGN std::uint32_t even[kLanes];
    for (std::int32_t i = 0; i < kLanes; ++i) even[i] = static_cast<std::uint32_t>(2 * i * stepY);
    m_even = hn::Load(kWords, even);
    m_odd = hn::Add(m_even, hn::Set(kWords, static_cast<std::uint32_t>(stepY)));
  }

  void WarpRow(const WideBlock& block, const SourceLine& line, ColumnRun run, std::uint8_t* out) {
    for (std::int32_t column = run.begin; column < run.end;) {
      const Position at = PositionAt(line, column);
      std::int64_t count = run.end - column;
      for (const std::int64_t most :
           {ColumnsUntilChange(at.x, line.stepX - (std::int64_t{1} << kPositionBits), kPhaseShift),
            ColumnsUntilChange(at.y, line.stepY, kPositionBits)})
        count = most < count ? most : count;
      m_sampler.SetPhaseAcross(static_cast<std::int16_t>((at.x >> kPhaseShift) & 255));
      const std::int16_t* const taps =
          block.At((at.x >> kPositionBits) - Sampler::kBefore, (at.y >> kPositionBits) - Sampler::kBefore);
      WarpPiece(taps, at.y, static_cast<std::int32_t>(count), out + std::ptrdiff_t{column} * kSize);
      column += static_cast<std::int32_t>(count);
    }
  }

 private:
  void WarpPiece(const std::int16_t* taps, std::int64_t y, std::int32_t count, std::uint8_t* out) const {
    if (count < kStep) {
      std::uint8_t samples[kStep * kSize];
      Step(taps, y, samples);
      std::memcpy(out, samples, static_cast<std::size_t>(count) * kSize);
      return;
    }
    for (std::int32_t i = 0; i < count; i += kStep) {
      const std::int32_t column = i + kStep <= count ? i : count - kStep;
      Step(taps + column, y + column * m_stepY, out + std::ptrdiff_t{column} * kSize);
    }
  }

  void Step(const std::int16_t* taps, std::int64_t y, std::uint8_t* out) const {
    const Words position = hn::Set(kWords, static_cast<std::uint32_t>(y));
    const Shorts samples = m_sampler.Samples(taps, hn::Add(position, m_even), hn::Add(position, m_odd));
    if constexpr (kSize == 1) {
      constexpr hn::Rebind<std::uint8_t, decltype(kShorts)> kOutputs;
      hn::StoreU(hn::DemoteTo(kOutputs, samples), kOutputs, out);
    } else {
      const Shorts clamped = hn::Min(hn::Max(samples, hn::Zero(kShorts)), m_largest);
      hn::StoreU(hn::BitCast(kBytes, clamped), kBytes, out);
    }
  }

  std::int64_t m_stepY;
  Words m_even, m_odd;
  Sampler m_sampler;
  Shorts m_largest;
};

constexpr std::int32_t kBlockColumns = 256;

ColumnRun Common(ColumnRun a, ColumnRun b) {
  return {a.begin > b.begin ? a.begin : b.begin, a.end < b.end ? a.end : b.end};
}

/// Where all rows together begin and end.
ColumnRun Union(const WarpedRow* rows, std::int32_t count) {
  ColumnRun all = {std::numeric_limits<std::int32_t>::max(), 0};
  for (const WarpedRow* row = rows; row != rows + count; ++row) {
    if (row->run.begin >= row->run.end) continue;
    all.begin = row->run.begin < all.begin ? row->run.begin : all.begin;
    all.end = row->run.end > all.end ? row->run.end : all.end;
  }
  return all;
}

template <class Sampler, int kSize>
bool WarpBlocks(const SourcePlane& plane, const WarpedRow* rows, std::int32_t count) {
  WideBlock block;
  Pieces<Sampler, kSize> pieces(plane, rows->line.stepY);
  ColumnRun columns = Union(rows, count);
  for (; columns.begin < columns.end; columns.begin += kBlockColumns) {
    const ColumnRun wanted = {columns.begin, columns.begin + kBlockColumns};
    Extent extent;
    for (const WarpedRow* row = rows; row != rows + count; ++row) {
      const ColumnRun run = Common(row->run, wanted);
      if (run.begin >= run.end) continue;
      extent.Add(PositionAt(row->line, run.begin));
      extent.Add(PositionAt(row->line, run.end - 1));
    }
    if (extent.left > extent.right) continue;
    extent.left -= Sampler::kBefore;
    extent.top -= Sampler::kBefore;
    extent.right += Sampler::kTaps - 1 - Sampler::kBefore;
    extent.bottom += Sampler::kTaps - 1 - Sampler::kBefore;
    if (!block.Load(plane, extent)) return false;
    for (const WarpedRow* row = rows; row != rows + count; ++row)
      pieces.WarpRow(block, row->line, Common(row->run, wanted), row->out);
  }
  return true;
}

template <class Sampler>
bool Warp(const SourcePlane& plane, const WarpedRow* rows, std::int32_t count) {
  // Pieces are two steps long or more, most of them.
  constexpr std::int64_t kPieces = 32, kOne = std::int64_t{1} << kPositionBits;
  const SourceLine& line = rows->line;
  const std::int64_t drift = line.stepX - kOne, limitX = (std::int64_t{1} << kPhaseShift) / kPieces,
                     limitY = kOne / kPieces;
  if (plane.bits > kMaxBits || drift < -limitX || drift > limitX || line.stepY < -limitY ||
      line.stepY > limitY)
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
