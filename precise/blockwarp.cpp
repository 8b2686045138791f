#include "precise/blockwarp.h"

#include <hwy/cache_control.h>
#include <limits>

#include "precise/columns.h"

// A block is up to 256 columns of the rows of one call. It is made row by row, and a row piece by piece. A
// strip is kStep columns of a block: what one step makes of each row.
//
//   WarpBlocks      for each block: the extent of its source, WideBlock::Load, then its rows
//   Strips          WarpRow: for each piece of a row; WarpPiece: for each strip that the piece touches
//   Linear, Cubic   the samples of a strip, of 2 × 2 or 4 × 4 taps
//
// UnitColumns serve pictures that are turned by about a degree at most and not magnified. There the phase
// across is constant for dozens of columns, and the phase down of a column for dozens of rows. So all columns
// of a piece share the weights across, and each strip keeps its weights down for the next row. DenseColumns
// serve the other pictures. They make all weights in each step.
//
// Several rows of the output read each source sample, so the source of a block is widened to 16-bit words
// first. Samples go into their highest bits: then the first pass has its results in the upper halves of its
// 32-bit sums.

namespace precise {
namespace {

constexpr int kMaxBits = 14;
constexpr std::int32_t kBlockColumns = 256;
// A block of fewer columns might read less than a vector of source samples.
constexpr std::int32_t kFewestColumns = 4 * kStep;

/// Added to widened samples. The weights of a cubic pass sum to 2^14, so this makes 2^15 in the sums: half of
/// the 2^16 that the first pass drops.
constexpr int kRounding = 2;

/// The column's position plus half a phase, so that dropping the bits below a phase rounds to 1/256 sample.
Position RoundedAt(const SourceLine& line, std::int32_t column) {
  return {line.startX + column * line.stepX + kHalfPhase, line.startY + column * line.stepY + kHalfPhase};
}

/// A rectangle of source samples, which need not all exist. `right` and `bottom` are its last column and row.
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

/// An extent of the source planes in 16-bit words; the planes' outermost samples continue beyond their edges.
/// A sample v of n bits is kept as v·2^(16 - n) - 2^15 + kRounding.
class WideBlock {
 public:
  static constexpr std::int32_t kColumns = kBlockColumns + 16, kRows = kMaxWarpedRows + 16;
  /// Strips begin less than a step before the extent, and read less than two steps beyond it.
  static constexpr std::int32_t kPitch = kStep + kColumns + 2 * kStep;

  /// False where the extent is larger than a block may be, has less than a step of the plane's columns, or
  /// reaches more than a step beyond the plane's left or right side.
  bool Load(const CositedPlanes& planes, const Extent& extent) {
    m_left = extent.left;
    m_top = extent.top;
    // The plane has columns left … right - 1 of the extent. In the block, which has `columns`, they are begin
    // … end - 1.
    const std::int64_t left = extent.left > 0 ? extent.left : 0, width = planes[0].width;
    const std::int64_t right = extent.right < width ? extent.right + 1 : width;
    const std::int64_t begin = left - m_left, end = right - m_left, columns = extent.right + 1 - m_left;
    if (end - begin < kStep || begin > kStep || columns - end > kStep || columns > kColumns ||
        extent.bottom - extent.top >= kRows)
      return false;
    for (std::size_t i = 0; i < planes.size() && planes[i].samples != nullptr; ++i)
      for (std::int64_t row = 0; row <= extent.bottom - extent.top; ++row) {
        std::int16_t* const to = m_samples[i] + row * kPitch + kStep;
        LoadRow(planes[i], m_top + row, left, right, to + begin);
        // The outermost samples continue to the extent's sides and a step beyond them.
        const Int16s first = hn::Set(kInt16s, to[begin]), last = hn::Set(kInt16s, to[end - 1]);
        for (const std::int64_t column : {begin, std::int64_t{0}})
          hn::StoreU(first, kInt16s, to + column - kStep);
        for (const std::int64_t column : {end, columns}) hn::StoreU(last, kInt16s, to + column);
      }
    return true;
  }

  /// The position in the block of a position in the plane.
  Position Within(const Position& position) const {
    return {position.x - (m_left << kPositionBits), position.y - (m_top << kPositionBits)};
  }

  /// A plane's row of the block, from column 0 on. Rows count from the top of the extent.
  const std::int16_t* Row(std::size_t plane, std::int64_t row) const {
    return m_samples[plane] + row * kPitch + kStep;
  }

 private:
  /// Loads samples left … right - 1, which are at least a vector, of the plane's row nearest to y.
  static void LoadRow(const SourcePlane& plane, std::int64_t y, std::int64_t left, std::int64_t right,
                      std::int16_t* to) {
    const std::int64_t row = y < 0 ? 0 : y < plane.height ? y : plane.height - 1;
    const std::uint8_t* const from = plane.samples + row * plane.strideBytes;
    if (plane.bits == 8)
      LoadSamples<1>(from + left, plane.bits, right - left, to);
    else
      LoadSamples<2>(from + 2 * left, plane.bits, right - left, to);
    // Prefetches what the next block reads of this row.
    const int size = plane.bits == 8 ? 1 : 2;
    const std::int64_t next = right + kBlockColumns < plane.width ? right + kBlockColumns : plane.width;
    for (std::int64_t x = right; x < next; x += 64 / size) hwy::Prefetch(from + x * size);
  }

  template <int kSize>
  static void LoadSamples(const std::uint8_t* from, int bits, std::int64_t count, std::int16_t* to) {
    const auto offset = hn::Set(kUint16s, 0x8000 + kRounding);
    const auto largest = hn::Set(kUint16s, static_cast<std::uint16_t>(LargestSample(bits)));
    const auto load = [&](std::int64_t i) {
      if constexpr (kSize == 1) {
        constexpr hn::Rebind<std::uint8_t, decltype(kUint16s)> kNarrow;
        const auto samples = hn::PromoteTo(kUint16s, hn::LoadU(kNarrow, from + i));
        hn::StoreU(hn::BitCast(kInt16s, hn::Add(hn::ShiftLeft<8>(samples), offset)), kInt16s, to + i);
      } else {
        const auto samples = hn::Min(hn::BitCast(kUint16s, hn::LoadU(kBytes, from + 2 * i)), largest);
        hn::StoreU(hn::BitCast(kInt16s, hn::Add(hn::ShiftLeftSame(samples, 16 - bits), offset)), kInt16s,
                   to + i);
      }
    };
    for (std::int64_t i = 0; i < count - kStep; i += kStep) load(i);
    load(count - kStep);
  }

  std::int64_t m_left = 0, m_top = 0;
  std::int16_t m_samples[kMaxCositedPlanes][std::ptrdiff_t{kRows} * kPitch];
};

/// Columns that are at most one source sample apart. The four columns of a block of lanes read seven samples
/// at most, which sixteen bytes hold. Members are as in `UnitColumns`; columns of a piece may differ in
/// phase.
class DenseColumns {
 public:
  static constexpr bool kHaveOnePhase = false;

  explicit DenseColumns(std::int64_t step) : m_step(step) {
    HWY_ALIGN std::uint32_t lows[kLanes], pairs[kLanes];
    for (std::int32_t lane = 0; lane < kLanes; ++lane) {
      const std::int64_t moved = lane % 4 * step;
      lows[lane] = static_cast<std::uint32_t>(moved);
      pairs[lane] = 0x03020100 + 0x02020202 * static_cast<std::uint32_t>((moved >> kPositionBits) + 1);
    }
    m_lows = hn::Load(kUint32s, lows);
    m_pairs = hn::BitCast(kBytes, hn::Load(kUint32s, pairs));
    for (std::int32_t vector = 0; vector < 2; ++vector) {
      for (std::int32_t lane = 0; lane < kLanes; ++lane)
        lows[lane] = static_cast<std::uint32_t>(ColumnOf(vector, lane / 4 * 4) * step);
      m_blocks[static_cast<std::size_t>(vector)] = hn::Load(kUint32s, lows);
    }
  }

  static constexpr std::int32_t ColumnOf(std::int32_t vector, std::int32_t lane) {
    return lane / 4 * 8 + 4 * vector + lane % 4;
  }

  static bool Suit(const SourceLine& line) {
    return line.stepX >= 0 && line.stepX <= kOneSample && IsNearlyLevel(line);
  }

  std::int64_t ColumnsInPhase(std::int64_t) const { return std::numeric_limits<std::int64_t>::max(); }

  class Taps {
   public:
    Taps(const DenseColumns& columns, std::int64_t x, std::int32_t column) {
      x -= column * columns.m_step;
      const Uint32s start = hn::Set(kUint32s, static_cast<std::uint32_t>(x));
      for (std::size_t vector = 0; vector < 2; ++vector) {
        const Uint32s fractions = hn::Add(hn::Add(start, columns.m_blocks[vector]), columns.m_lows);
        // Where the fractions did not wrap, pairs begin one sample (two bytes) earlier.
        const auto isSameSample = hn::Eq(hn::Max(fractions, columns.m_lows), fractions);
        const Bytes back = hn::And(hn::BitCast(kBytes, hn::VecFromMask(kUint32s, isSameSample)),
                                   hn::Set(kBytes, static_cast<std::uint8_t>(-2)));
        m_phases[vector] = PhasesOf(fractions);
        m_pairs[vector] = hn::Add(columns.m_pairs, back);
        for (std::size_t block = 0; block < kBlocks; ++block)
          m_first[vector][block] = static_cast<std::ptrdiff_t>(
              (x + static_cast<std::int64_t>(8 * block + 4 * vector) * columns.m_step) >> kPositionBits);
      }
    }

    const Both<Int32s>& Phases() const { return m_phases; }

    template <std::int32_t kTap>
    Int16s Pairs(const std::int16_t* row, std::int32_t of) const {
      const auto vector = static_cast<std::size_t>(of);
      const Int16s samples =
          LoadBlocks(kInt16s, row + m_first[vector][0], row + m_first[vector][kBlocks - 1]);
      const Bytes pairs = hn::Add(m_pairs[vector], hn::Set(kBytes, 2 * kTap));
      return hn::BitCast(kInt16s, hn::TableLookupBytes(hn::BitCast(kBytes, samples), pairs));
    }

   private:
    Both<Int32s> m_phases;
    Both<Bytes> m_pairs;  // which bytes of its block's samples each lane's first pair takes
    Both<std::array<std::ptrdiff_t, kBlocks>> m_first;  // the first sample that each block loads
  };

  template <int kDropped>
  static Int16s Join(const Both<Int32s>& sums) {
    return hn::ReorderDemote2To(kInt16s, hn::ShiftRight<kDropped>(sums[0]),
                                hn::ShiftRight<kDropped>(sums[1]));
  }

 private:
  std::int64_t m_step;
  Uint32s m_lows;          // the fraction of each lane's distance from its block's first column
  Bytes m_pairs;           // which bytes a lane's first pair takes where the fractions wrap
  Both<Uint32s> m_blocks;  // the fraction of each block's distance from the step's first column
};

/// The filter of the bicubic warp. Widened samples are less by 2^15, so results of the first pass are less by
/// 2^13. The offset adds these again, times the sum of the weights down, 2^14; and half of what the second
/// pass drops.
class WideCubic : public Cubic<SharpWeights, 16> {
 public:
  explicit WideCubic(int bits) : Cubic(kMaxBits - bits, (1 << (13 + kWeightBits)) + (1 << (27 - bits))) {}
};

/// Samples by a separable filter of 2 × 2 taps. Members are as in `Cubic`.
class Linear {
 public:
  static constexpr std::int32_t kTaps = 2, kBefore = 0;

  using Across = Both<Int16s>;
  using Down = Both<Int32s>;

  // Weights of both passes sum to 2^16, so sums contain kRounding · 2^16, which the offset takes away. It
  // adds half of what is dropped.
  explicit Linear(int bits)
      : m_drop(16 - bits), m_offset(OpaqueSet(kInt32s, (1 << (31 - bits)) - (kRounding << 16))) {}

  template <class Columns>
  Across AcrossAt(const typename Columns::Taps& taps) const {
    const auto pairs = [&](Int32s second) {
      return hn::BitCast(kInt16s, hn::Or(hn::ShiftLeft<16>(second), hn::Sub(m_one, second)));
    };
    const Both<Int32s> phases = taps.Phases();
    return {pairs(phases[0]), pairs(phases[1])};
  }
  Down DownAt(const Both<Int32s>& phases) const { return phases; }

  template <class Columns>
  Int16s Samples(const std::int16_t* row, std::ptrdiff_t pitch, const typename Columns::Taps& taps,
                 const Across& across, const Down& down) const {
    const auto sums = [&](std::int32_t vector) {
      const auto i = static_cast<std::size_t>(vector);
      const Int32s upper = SumsOfPairs(taps.template Pairs<0>(row, vector), across[i]);
      const Int32s lower = SumsOfPairs(taps.template Pairs<0>(row + pitch, vector), across[i]);
      return hn::Add(hn::Add(hn::ShiftLeft<kPhaseBits>(upper), m_offset),
                     hn::Mul(hn::Sub(lower, upper), down[i]));
    };
    const auto joined = hn::BitCast(kUint16s, Columns::template Join<16>({sums(0), sums(1)}));
    return hn::BitCast(kInt16s, hn::ShiftRightSame(hn::Xor(joined, hn::Set(kUint16s, 0x8000)), m_drop));
  }

 private:
  int m_drop;
  Int32s m_offset, m_one = OpaqueSet(kInt32s, 1 << kPhaseBits);
};

/// Writes the rows of a block, in strips of kStep columns. A sample has kSize bytes.
template <class Sampler, class Columns, int kSize>
class Strips {
 public:
  Strips(const CositedPlanes& planes, const SourceLine& line)
      : m_largest(hn::Set(kInt16s, static_cast<std::int16_t>(LargestSample(planes[0].bits)))),
        m_fractions(FractionsOf<Columns>(line.stepY)),
        m_sampler(planes[0].bits),
        m_columns(line.stepX),
        m_stepY(line.stepY),
        m_planes(planes[1].samples == nullptr ? 1 : 2) {}

  /// Begins a block, of which `column` is the first.
  void Begin(std::int32_t column) { m_column = column; }

  /// Writes the covered columns that the row has in the block.
  void WarpRow(const WideBlock& block, const WarpedRow& row) {
    const ColumnRun run = Intersect(row.covered, {m_column, m_column + kBlockColumns});
    for (std::int32_t begin = run.begin, end; begin < run.end; begin = end) {
      const Position at = block.Within(RoundedAt(row.line, begin));
      end = EndOfPiece(m_columns, at, m_stepY, {begin, run.end});
      const ColumnRun piece = {begin - m_column, end - m_column};
      if (m_planes == 1)
        WarpPiece<1>(block, row, at, piece);
      else
        WarpPiece<2>(block, row, at, piece);
    }
  }

 private:
  /// The weights down of a strip. They hold while the fraction of its first column's y is one of the `size`
  /// values from `first` on.
  struct KeptWeights {
    std::uint32_t first = 0, size = 0;
    typename Sampler::Down down = {};
  };

  /// Writes a piece, whose columns count from the block's first. `begin` is where its first column reads.
  template <std::size_t kPlanes>
  void WarpPiece(const WideBlock& block, const WarpedRow& row, const Position& begin, ColumnRun piece) {
    const std::int64_t top = (begin.y >> kPositionBits) - Sampler::kBefore;
    for (std::int32_t column = piece.begin / kStep * kStep; column < piece.end; column += kStep) {
      const std::int32_t passed = piece.begin - column;
      const typename Columns::Taps taps(m_columns, begin.x, passed);
      const auto y = static_cast<std::uint32_t>(begin.y - passed * m_stepY);
      const auto across = m_sampler.template AcrossAt<Columns>(taps);
      const typename Sampler::Down& down = WeightsDown(column / kStep, y);
      for (std::size_t plane = 0; plane < kPlanes; ++plane)
        Store(
            m_sampler.template Samples<Columns>(block.Row(plane, top), WideBlock::kPitch, taps, across, down),
            row, plane, column, piece);
    }
  }

  /// The weights down of a strip. `y` is the fraction of where its first column reads.
  const typename Sampler::Down& WeightsDown(std::int32_t strip, std::uint32_t y) {
    KeptWeights& kept = m_kept[strip];
    const Both<Uint32s> fractions = {hn::Add(hn::Set(kUint32s, y), m_fractions[0]),
                                     hn::Add(hn::Set(kUint32s, y), m_fractions[1])};
    const auto make = [&] { return m_sampler.DownAt({PhasesOf(fractions[0]), PhasesOf(fractions[1])}); };
    if constexpr (!Columns::kHaveOnePhase) {
      kept.down = make();  // each row of a magnified picture has phases of its own
      return kept.down;
    }
    if (y - kept.first >= kept.size) {
      // How far each lane is above the start of its phase. All lanes keep their phases until y falls by more
      // than the smallest of these, or rises so far that the largest becomes a whole phase.
      const Uint32s rest = hn::Set(kUint32s, static_cast<std::uint32_t>(kOnePhase - 1));
      const Both<Uint32s> rests = {hn::And(fractions[0], rest), hn::And(fractions[1], rest)};
      const std::uint32_t least = hn::GetLane(hn::MinOfLanes(kUint32s, hn::Min(rests[0], rests[1])));
      const std::uint32_t most = hn::GetLane(hn::MaxOfLanes(kUint32s, hn::Max(rests[0], rests[1])));
      kept = {y - least, static_cast<std::uint32_t>(kOnePhase) - (most - least), make()};
    }
    return kept.down;
  }

  /// Writes a strip's samples from the piece's begin on, and nothing outside of the covered columns. What is
  /// written beyond the piece is written again by the next piece.
  void Store(Int16s samples, const WarpedRow& row, std::size_t plane, std::int32_t column,
             ColumnRun piece) const {
    std::uint8_t* const out = row.out[plane] + std::ptrdiff_t{m_column + column} * kSize;
    if (m_column + column + kStep > row.covered.end) {
      HWY_ALIGN std::uint8_t bytes[kStep * kSize];
      hn::Store(Narrow(samples), kOutputs, bytes);
      const std::int32_t begin = piece.begin > column ? piece.begin - column : 0;
      const std::int32_t end = piece.end - column < kStep ? piece.end - column : kStep;
      for (std::int32_t i = begin * kSize; i < end * kSize; ++i) out[i] = bytes[i];
    } else if (column < piece.begin) {
      const auto isBefore = hn::FirstN(kOutputs, static_cast<std::size_t>(piece.begin - column) * kSize);
      hn::StoreU(hn::IfThenElse(isBefore, hn::LoadU(kOutputs, out), Narrow(samples)), kOutputs, out);
    } else {
      hn::StoreU(Narrow(samples), kOutputs, out);
    }
  }

  static constexpr hn::CappedTag<std::uint8_t, kStep* kSize> kOutputs = {};

  /// The samples, clamped to their bits, as the bytes to write.
  hn::Vec<decltype(kOutputs)> Narrow(Int16s samples) const {
    if constexpr (kSize == 1)
      return hn::DemoteTo(kOutputs, samples);
    else
      return hn::BitCast(kOutputs, hn::Min(hn::Max(samples, hn::Zero(kInt16s)), m_largest));
  }

  Int16s m_largest;
  Both<Uint32s> m_fractions;
  Sampler m_sampler;
  KeptWeights m_kept[kBlockColumns / kStep];
  Columns m_columns;
  std::int64_t m_stepY;
  std::size_t m_planes;
  std::int32_t m_column = 0;
};

/// From the first covered column of all rows to the last.
ColumnRun Union(const WarpedRow* rows, std::int32_t count) {
  ColumnRun all = {std::numeric_limits<std::int32_t>::max(), 0};
  for (const WarpedRow* row = rows; row != rows + count; ++row) {
    const ColumnRun run = row->covered;
    if (run.begin >= run.end) continue;
    all = {run.begin < all.begin ? run.begin : all.begin, run.end > all.end ? run.end : all.end};
  }
  return all;
}

template <class Sampler, class Columns, int kSize>
bool WarpBlocks(const CositedPlanes& planes, const WarpedRow* rows, std::int32_t count) {
  Strips<Sampler, Columns, kSize> strips(planes, rows->line);
  WideBlock block;
  const ColumnRun all = Union(rows, count);
  const std::int32_t last = all.end - kFewestColumns > all.begin ? all.end - kFewestColumns : all.begin;
  for (std::int32_t next = all.begin; next < all.end; next += kBlockColumns) {
    const std::int32_t begin = next < last ? next : last;
    const ColumnRun columns = Intersect({begin, begin + kBlockColumns}, all);
    Extent extent;
    for (const WarpedRow* row = rows; row != rows + count; ++row) {
      const ColumnRun run = Intersect(row->covered, columns);
      if (run.begin >= run.end) continue;
      extent.Add(RoundedAt(row->line, run.begin));
      extent.Add(RoundedAt(row->line, run.end - 1));
    }
    if (extent.left > extent.right) continue;
    constexpr std::int32_t kAfter = Sampler::kTaps - 1 - Sampler::kBefore;
    if (!block.Load(planes, {extent.left - Sampler::kBefore, extent.top - Sampler::kBefore,
                             extent.right + kAfter, extent.bottom + kAfter}))
      return false;
    strips.Begin(begin);
    for (const WarpedRow* row = rows; row != rows + count; ++row) strips.WarpRow(block, *row);
  }
  return true;
}

template <class Sampler, class Columns>
bool WarpBlocks(const CositedPlanes& planes, const WarpedRow* rows, std::int32_t count) {
  return planes[0].bits == 8 ? WarpBlocks<Sampler, Columns, 1>(planes, rows, count)
                             : WarpBlocks<Sampler, Columns, 2>(planes, rows, count);
}

template <class Sampler>
bool Warp(const CositedPlanes& planes, const WarpedRow* rows, std::int32_t count) {
  const SourceLine& line = rows->line;
  if (planes[0].bits > kMaxBits) return false;
  if (UnitColumns::Suit(line)) return WarpBlocks<Sampler, UnitColumns>(planes, rows, count);
  return DenseColumns::Suit(line) && WarpBlocks<Sampler, DenseColumns>(planes, rows, count);
}

}  // namespace

bool WarpBlocksBilinear(const CositedPlanes& planes, const WarpedRow* rows, std::int32_t count) {
  return Warp<Linear>(planes, rows, count);
}

bool WarpBlocksBicubic(const CositedPlanes& planes, const WarpedRow* rows, std::int32_t count) {
  return Warp<WideCubic>(planes, rows, count);
}

}  // namespace precise
