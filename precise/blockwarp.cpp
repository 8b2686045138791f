#include "precise/blockwarp.h"

#include <hwy/cache_control.h>
#include <limits>

#include "precise/columns.h"

// A picture that is turned by a degree or two, and not magnified, reads its source nearly as it lies. In a
// row, the phase across stays for dozens of columns; in a column, the phase down stays for dozens of rows. So
// a block is made row by row, and a row in strips of a vector's width. Each strip keeps its weights down for
// the next row. The weights across are the same for a whole strip, and its samples need no shuffling.
//
// Strips of a magnified picture make all weights anew, and shuffle their samples.
//
// The source samples of a block are widened first, since several rows of the output read each. They go into
// the highest bits of 16-bit words, so that the first pass leaves its means in the upper halves of 32 bits.

namespace precise {
namespace {

constexpr int kMaxBits = 14;
constexpr std::int32_t kBlockColumns = 256;
// A block of fewer might read fewer source samples than a vector has.
constexpr std::int32_t kFewestColumns = 4 * kStep;

/// Added to widened samples beside -2^15. The weights of a first pass sum to 2^14, so this adds the half of
/// 2^16 that rounds its means.
constexpr int kRounding = 2;

/// The column's position and half a phase: cut to whole phases, it is the position rounded to 1/256 sample.
Position RoundedAt(const SourceLine& line, std::int32_t column) {
  return {line.startX + column * line.stepX + kHalfPhase, line.startY + column * line.stepY + kHalfPhase};
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

/// A part of source planes, which beyond their edges goes on. A sample v of n bits is kept as
/// v·2^(16 - n) - 2^15 + kRounding.
class WideBlock {
 public:
  static constexpr std::int32_t kColumns = kBlockColumns + 16, kRows = kMaxWarpedRows + 16;
  /// Strips begin less than a step before the extent, and read less than two beyond it.
  static constexpr std::int32_t kPitch = kStep + kColumns + 2 * kStep;

  /// False where the extent is too large, or too much of it lies off the plane.
  bool Load(const AlikePlanes& planes, const Extent& extent) {
    m_left = extent.left;
    m_top = extent.top;
    // Columns of the plane; and columns of the block, of which the plane has begin … end - 1.
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
        const Shorts first = hn::Set(kShorts, to[begin]), last = hn::Set(kShorts, to[end - 1]);
        for (const std::int64_t column : {begin, std::int64_t{0}})
          hn::StoreU(first, kShorts, to + column - kStep);
        for (const std::int64_t column : {end, columns}) hn::StoreU(last, kShorts, to + column);
      }
    return true;
  }

  /// A position in the plane, as it is in the block.
  Position Within(const Position& position) const {
    return {position.x - (m_left << kPositionBits), position.y - (m_top << kPositionBits)};
  }

  /// Samples of a plane's row from column 0 on.
  const std::int16_t* Row(std::size_t plane, std::int64_t row) const {
    return m_samples[plane] + row * kPitch + kStep;
  }

 private:
  /// Loads samples left … right - 1, at least a vector.
  static void LoadRow(const SourcePlane& plane, std::int64_t y, std::int64_t left, std::int64_t right,
                      std::int16_t* to) {
    const std::int64_t row = y < 0 ? 0 : y < plane.height ? y : plane.height - 1;
    const std::uint8_t* const from = plane.samples + row * plane.strideBytes;
    if (plane.bits == 8)
      LoadSamples<1>(from + left, plane.bits, right - left, to);
    else
      LoadSamples<2>(from + 2 * left, plane.bits, right - left, to);
    // The next block reads on in these rows.
    const int size = plane.bits == 8 ? 1 : 2;
    const std::int64_t next = right + kBlockColumns < plane.width ? right + kBlockColumns : plane.width;
    for (std::int64_t x = right; x < next; x += 64 / size) hwy::Prefetch(from + x * size);
  }

  template <int kSize>
  static void LoadSamples(const std::uint8_t* from, int bits, std::int64_t count, std::int16_t* to) {
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
    for (std::int64_t i = 0; i < count - kStep; i += kStep) load(i);
    load(count - kStep);
  }

  std::int64_t m_left = 0, m_top = 0;
  std::int16_t m_samples[kMaxAlikePlanes][std::ptrdiff_t{kRows} * kPitch];
};

/// Columns that stand at most a sample apart. Four neighbours form a block, whose samples lie within sixteen
/// bytes. The two vectors take blocks in turn.
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
    m_lows = hn::Load(kWords, lows);
    m_pairs = hn::BitCast(kBytes, hn::Load(kWords, pairs));
    for (std::int32_t vector = 0; vector < 2; ++vector) {
      for (std::int32_t lane = 0; lane < kLanes; ++lane)
        lows[lane] = static_cast<std::uint32_t>(ColumnOf(vector, lane / 4 * 4) * step);
      m_blocks[static_cast<std::size_t>(vector)] = hn::Load(kWords, lows);
    }
  }

  static constexpr std::int32_t ColumnOf(std::int32_t vector, std::int32_t lane) {
    return lane / 4 * 8 + 4 * vector + lane % 4;
  }

  static bool Suit(const SourceLine& line) {
    return line.stepX >= 0 && line.stepX <= kOneSample && IsNearlyLevel(line);
  }

  std::int64_t Stay(std::int64_t) const { return std::numeric_limits<std::int64_t>::max(); }

  class Taps {
   public:
    Taps(const DenseColumns& columns, std::int64_t x, std::int32_t column) {
      x -= column * columns.m_step;
      const Words start = hn::Set(kWords, static_cast<std::uint32_t>(x));
      for (std::size_t vector = 0; vector < 2; ++vector) {
        const Words fractions = hn::Add(hn::Add(start, columns.m_blocks[vector]), columns.m_lows);
        const auto isSameSample = hn::Eq(hn::Max(fractions, columns.m_lows), fractions);
        const Bytes back = hn::And(hn::BitCast(kBytes, hn::VecFromMask(kWords, isSameSample)),
                                   hn::Set(kBytes, static_cast<std::uint8_t>(-2)));
        m_phases[vector] = PhasesOf(fractions);
        m_pairs[vector] = hn::Add(columns.m_pairs, back);
        for (std::size_t block = 0; block < kBlocks; ++block)
          m_first[vector][block] = static_cast<std::ptrdiff_t>(
              (x + static_cast<std::int64_t>(8 * block + 4 * vector) * columns.m_step) >> kPositionBits);
      }
    }

    const Both<Ints>& Phases() const { return m_phases; }

    template <std::int32_t kTap>
    Shorts Pairs(const std::int16_t* row, std::int32_t of) const {
      const auto vector = static_cast<std::size_t>(of);
      const Shorts samples =
          LoadBlocks(kShorts, row + m_first[vector][0], row + m_first[vector][kBlocks - 1]);
      const Bytes pairs = hn::Add(m_pairs[vector], hn::Set(kBytes, 2 * kTap));
      return hn::BitCast(kShorts, hn::TableLookupBytes(hn::BitCast(kBytes, samples), pairs));
    }

   private:
    Both<Ints> m_phases;
    Both<Bytes> m_pairs;
    Both<std::array<std::ptrdiff_t, kBlocks>> m_first;
  };

  template <int kDropped>
  static Shorts Join(const Both<Ints>& sums) {
    return hn::ReorderDemote2To(kShorts, hn::ShiftRight<kDropped>(sums[0]),
                                hn::ShiftRight<kDropped>(sums[1]));
  }

 private:
  std::int64_t m_step;
  Words m_lows;
  Bytes m_pairs;
  Both<Words> m_blocks;
};

/// The bicubic warp's. Means of the first pass are less by 2^13, as samples are by 2^15. The weights down sum
/// to 2^14, so the offset gives back 2^13 · 2^14.
class WideCubic : public Cubic<SharpWeights, 16> {
 public:
  explicit WideCubic(int bits) : Cubic(kMaxBits - bits, (1 << (13 + kWeightBits)) + (1 << (27 - bits))) {}
};

/// Makes samples by two taps across and two down.
class Linear {
 public:
  static constexpr std::int32_t kTaps = 2, kBefore = 0;

  using Across = Both<Shorts>;
  using Down = Both<Ints>;

  // Weights sum to 2^16, so kRounding was added as often. The other offset is half of what is dropped.
  explicit Linear(int bits)
      : m_drop(16 - bits), m_offset(Kept(kInts, (1 << (31 - bits)) - (kRounding << 16))) {}

  template <class Columns>
  Across AcrossAt(const typename Columns::Taps& taps) const {
    const auto pairs = [&](Ints second) {
      return hn::BitCast(kShorts, hn::Or(hn::ShiftLeft<16>(second), hn::Sub(m_one, second)));
    };
    const Both<Ints> phases = taps.Phases();
    return {pairs(phases[0]), pairs(phases[1])};
  }
  Down DownAt(const Both<Ints>& phases) const { return phases; }

  template <class Columns>
  Shorts Samples(const std::int16_t* row, std::ptrdiff_t pitch, const typename Columns::Taps& taps,
                 const Across& across, const Down& down) const {
    const auto sums = [&](std::int32_t vector) {
      const auto i = static_cast<std::size_t>(vector);
      const Ints upper = SumsOfPairs(taps.template Pairs<0>(row, vector), across[i]);
      const Ints lower = SumsOfPairs(taps.template Pairs<0>(row + pitch, vector), across[i]);
      return hn::Add(hn::Add(hn::ShiftLeft<kPhaseBits>(upper), m_offset),
                     hn::Mul(hn::Sub(lower, upper), down[i]));
    };
    const auto joined = hn::BitCast(kHalfWords, Columns::template Join<16>({sums(0), sums(1)}));
    return hn::BitCast(kShorts, hn::ShiftRightSame(hn::Xor(joined, hn::Set(kHalfWords, 0x8000)), m_drop));
  }

 private:
  int m_drop;
  Ints m_offset, m_one = Kept(kInts, 1 << kPhaseBits);
};

/// Makes the rows of a block, in strips of kStep columns.
template <class Sampler, class Columns, int kSize>
class Strips {
 public:
  Strips(const AlikePlanes& planes, const SourceLine& line)
      : m_largest(hn::Set(kShorts, static_cast<std::int16_t>(LargestSample(planes[0].bits)))),
        m_fractions(FractionsOf<Columns>(line.stepY)),
        m_sampler(planes[0].bits),
        m_columns(line.stepX),
        m_stepY(line.stepY),
        m_planes(planes[1].samples == nullptr ? 1 : 2) {}

  /// Sets the first column of the block whose rows come next.
  void Begin(std::int32_t column) { m_column = column; }

  /// Writes the row's covered columns of the block, by pieces that read the same source rows.
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
  /// Weights down of a strip. They are the same for `size` positions of its first column, from `first` on.
  struct KeptWeights {
    std::uint32_t first = 0, size = 0;
    typename Sampler::Down down = {};
  };

  /// The piece's columns count from the block's first.
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

  /// The weights down of a strip whose first column is at `y`.
  const typename Sampler::Down& WeightsDown(std::int32_t strip, std::uint32_t y) {
    KeptWeights& kept = m_kept[strip];
    const Both<Words> fractions = {hn::Add(hn::Set(kWords, y), m_fractions[0]),
                                   hn::Add(hn::Set(kWords, y), m_fractions[1])};
    const auto make = [&] { return m_sampler.DownAt({PhasesOf(fractions[0]), PhasesOf(fractions[1])}); };
    if constexpr (!Columns::kHaveOnePhase) {
      kept.down = make();  // rows of a magnified picture have other phases each
      return kept.down;
    }
    if (y - kept.first >= kept.size) {
      // How far lanes stand in their phases. Weights stay as far back as the least, and ahead until the most
      // is a whole phase.
      const Words rest = hn::Set(kWords, static_cast<std::uint32_t>(kOnePhase - 1));
      const Both<Words> rests = {hn::And(fractions[0], rest), hn::And(fractions[1], rest)};
      const std::uint32_t least = hn::GetLane(hn::MinOfLanes(kWords, hn::Min(rests[0], rests[1])));
      const std::uint32_t most = hn::GetLane(hn::MaxOfLanes(kWords, hn::Max(rests[0], rests[1])));
      kept = {y - least, static_cast<std::uint32_t>(kOnePhase) - (most - least), make()};
    }
    return kept.down;
  }

  /// Writes a strip's samples from the piece's begin on, and changes nothing that is not covered. What it
  /// writes beyond the piece, the next piece writes anew.
  void Store(Shorts samples, const WarpedRow& row, std::size_t plane, std::int32_t column,
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

  /// The samples as they are written.
  hn::Vec<decltype(kOutputs)> Narrow(Shorts samples) const {
    if constexpr (kSize == 1)
      return hn::DemoteTo(kOutputs, samples);
    else
      return hn::BitCast(kOutputs, hn::Min(hn::Max(samples, hn::Zero(kShorts)), m_largest));
  }

  Shorts m_largest;
  Both<Words> m_fractions;
  Sampler m_sampler;
  KeptWeights m_kept[kBlockColumns / kStep];
  Columns m_columns;
  std::int64_t m_stepY;
  std::size_t m_planes;
  std::int32_t m_column = 0;
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

template <class Sampler, class Columns, int kSize>
bool WarpBlocks(const AlikePlanes& planes, const WarpedRow* rows, std::int32_t count) {
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
bool WarpBlocks(const AlikePlanes& planes, const WarpedRow* rows, std::int32_t count) {
  return planes[0].bits == 8 ? WarpBlocks<Sampler, Columns, 1>(planes, rows, count)
                             : WarpBlocks<Sampler, Columns, 2>(planes, rows, count);
}

template <class Sampler>
bool Warp(const AlikePlanes& planes, const WarpedRow* rows, std::int32_t count) {
  const SourceLine& line = rows->line;
  if (planes[0].bits > kMaxBits) return false;
  if (UnitColumns::Suit(line)) return WarpBlocks<Sampler, UnitColumns>(planes, rows, count);
  return DenseColumns::Suit(line) && WarpBlocks<Sampler, DenseColumns>(planes, rows, count);
}

}  // namespace

bool WarpBlocksBilinear(const AlikePlanes& planes, const WarpedRow* rows, std::int32_t count) {
  return Warp<Linear>(planes, rows, count);
}

bool WarpBlocksBicubic(const AlikePlanes& planes, const WarpedRow* rows, std::int32_t count) {
  return Warp<WideCubic>(planes, rows, count);
}

}  // namespace precise
