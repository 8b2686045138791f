#pragma once

#include <array>
#include <limits>

#include "precise/sourceline.h"
#include "precise/vectors.h"

// Sampling along nearly level lines. A piece is a run of columns that read the same source rows: dozens of
// them. A step makes kStep columns of a piece, in two vectors of 32-bit lanes. Their columns, for AVX2
// (blocks of 128 bits):
//
//               UnitColumns               DenseColumns
//   vector 0    0  2  4  6 |  8 10 12 14    0  1  2  3 |  8  9 10 11
//   vector 1    1  3  5  7 |  9 11 13 15    4  5  6  7 | 12 13 14 15
//
// Each lane reads its taps in pairs: `Taps::Pairs<k>` holds the taps k and k + 1 of its column as two 16-bit
// lanes. UnitColumns advance by one source sample a column. So their pairs are what memory holds: vector 0
// loads samples 0 1, 2 3, 4 5 …, and vector 1 loads 1 2, 3 4, 5 6 …. DenseColumns advance by less, and
// shuffle their pairs out of eight samples for each block, from the first tap of its first column on.
//
// A pass over four taps is then two multiplications of pairs by pairs of weights. The second pass pairs rows:
//
//   rows 0 and 1 of a lane's column, each 16 bits  ×  weights 0 and 1   ┐
//   rows 2 and 3                                   ×  weights 2 and 3   ┴ sum: the lane's sample

namespace precise {
namespace {

inline constexpr std::int32_t kStep = 2 * kLanes;  // as many as a vector has 16-bit words
inline constexpr int kPhaseShift = kPositionBits - kPhaseBits;
inline constexpr std::int64_t kOnePhase = std::int64_t{1} << kPhaseShift;
inline constexpr std::int64_t kHalfPhase = kOnePhase / 2;

struct Position {
  std::int64_t x, y;
};

/// True when the line moves at most one source row in two steps: most pieces are at least as long.
inline bool IsNearlyLevel(const SourceLine& line) {
  constexpr std::int64_t kMaxStep = kOneSample / (2 * kStep);
  return line.stepY >= -kMaxStep && line.stepY <= kMaxStep;
}

/// For how many columns, from the one at `position` on, positions differ in their lowest `lowBits` bits only.
inline std::int64_t ColumnsUntilChange(std::int64_t position, std::int64_t step, int lowBits) {
  const std::int64_t size = std::int64_t{1} << lowBits, rest = position & (size - 1);
  if (step == 0) return std::numeric_limits<std::int64_t>::max();
  return step > 0 ? (size - 1 - rest) / step + 1 : rest / -step + 1;
}

/// Phases, 0 … 255, from fractions in 2^-32 of a sample.
inline Int32s PhasesOf(Uint32s fractions) {
  return hn::BitCast(kInt32s, hn::ShiftRight<kPhaseShift>(fractions));
}

/// One for each vector of a step.
template <class Vector>
using Both = std::array<Vector, 2>;

/// How far below a step's first column each of its columns reads: the fraction in 2^-32 of a sample, without
/// whole samples.
template <class Columns>
Both<Uint32s> FractionsOf(std::int64_t stepY) {
  Both<Uint32s> fractions;
  for (std::int32_t vector = 0; vector < 2; ++vector) {
    HWY_ALIGN std::uint32_t lows[kLanes];
    for (std::int32_t lane = 0; lane < kLanes; ++lane)
      lows[lane] = static_cast<std::uint32_t>(Columns::ColumnOf(vector, lane) * stepY);
    fractions[static_cast<std::size_t>(vector)] = hn::Load(kUint32s, lows);
  }
  return fractions;
}

/// Drops the lowest bits of all sums, and the highest that exceed 16 bits. Sums of `even` go into the even
/// 16-bit lanes, sums of `odd` into the odd ones.
template <int kDropped>
Int16s ShiftAndInterleave(Int32s even, Int32s odd) {
  return hn::OddEven(hn::BitCast(kInt16s, hn::ShiftLeft<16 - kDropped>(odd)),
                     hn::BitCast(kInt16s, hn::ShiftRight<kDropped>(even)));
}

/// Columns that are one source sample apart, up to a small drift. A piece ends when the drift changes the
/// phase across, so all of its columns have the same one.
class UnitColumns {
 public:
  static constexpr bool kHaveOnePhase = true;

  explicit UnitColumns(std::int64_t step) : m_drift(step - kOneSample) {}

  /// True when most pieces of the line are at least two steps long.
  static bool Suit(const SourceLine& line) {
    constexpr std::int64_t kMaxDrift = kOnePhase / (2 * kStep);
    return line.stepX >= kOneSample - kMaxDrift && line.stepX <= kOneSample + kMaxDrift &&
           IsNearlyLevel(line);
  }

  static constexpr std::int32_t ColumnOf(std::int32_t vector, std::int32_t lane) { return 2 * lane + vector; }

  /// For how many columns, from the one at `x` on, the phase across is the same.
  std::int64_t ColumnsInPhase(std::int64_t x) const { return ColumnsUntilChange(x, m_drift, kPhaseShift); }

  /// What the columns of a step read in a row.
  class Taps {
   public:
    /// `x` is the position of a column that comes so many columns after the step's first; before it where
    /// `column` is negative.
    Taps(const UnitColumns&, std::int64_t x, std::int32_t column)
        : m_phase(static_cast<std::int32_t>(x >> kPhaseShift) & ((1 << kPhaseBits) - 1)),
          m_first((x >> kPositionBits) - column) {}

    Both<Int32s> Phases() const { return {hn::Set(kInt32s, m_phase), hn::Set(kInt32s, m_phase)}; }

    template <std::int32_t kTap>
    Int16s Pairs(const std::int16_t* row, std::int32_t vector) const {
      return hn::LoadU(kInt16s, row + m_first + vector + kTap);
    }

   private:
    std::int32_t m_phase;
    std::ptrdiff_t m_first;
  };

  /// The sums of both vectors without their lowest bits, as 16-bit lanes in the order of columns.
  template <int kDropped>
  static Int16s Join(const Both<Int32s>& sums) {
    return ShiftAndInterleave<kDropped>(sums[0], sums[1]);
  }

 private:
  std::int64_t m_drift;
};

/// The end of the piece that begins at run.begin, which reads at `at`. It is not beyond the end of the run.
template <class Columns>
std::int32_t EndOfPiece(const Columns& columns, const Position& at, std::int64_t stepY, ColumnRun run) {
  const std::int64_t inPhase = columns.ColumnsInPhase(at.x);
  const std::int64_t inRow = ColumnsUntilChange(at.y, stepY, kPositionBits);
  const std::int64_t length = inPhase < inRow ? inPhase : inRow;
  return length < run.end - run.begin ? run.begin + static_cast<std::int32_t>(length) : run.end;
}

/// Samples by a separable filter of 4 × 4 taps. The first pass filters along rows and drops `kFirstPass`
/// bits, rounded to the nearest; where these are 16, the source samples include the half that rounds. The
/// second pass adds `offset`, drops 14 bits, and then `drop` more.
template <class WeightFormula, int kFirstPass>
class Cubic {
 public:
  static constexpr std::int32_t kTaps = 4, kBefore = 1;

  /// Pairs of weights: of the first two taps, and of the last two.
  struct Pairs {
    Both<Int16s> near, far;
  };
  using Across = Pairs;
  using Down = Pairs;

  Cubic(int drop, std::int32_t offset) : m_drop(drop), m_offset(OpaqueSet(kInt32s, offset)) {}

  template <class Columns>
  Across AcrossAt(const typename Columns::Taps& taps) const {
    const Both<Int32s> phases = taps.Phases();
    Across pairs = DownAt(phases);
    // With one phase both vectors have the same weights, which compilers do not see.
    if constexpr (Columns::kHaveOnePhase)
      pairs = {{pairs.near[0], pairs.near[0]}, {pairs.far[0], pairs.far[0]}};
    return pairs;
  }

  // Demotion puts the phases of both vectors into the two halves of each block, where interleaving finds them
  // again.
  Down DownAt(const Both<Int32s>& phases) const {
    const Weights weights = m_weights.At(hn::ReorderDemote2To(kInt16s, phases[0], phases[1]));
    return {{hn::InterleaveLower(kInt16s, weights.first, weights.second),
             hn::InterleaveUpper(kInt16s, weights.first, weights.second)},
            {hn::InterleaveLower(kInt16s, weights.third, weights.fourth),
             hn::InterleaveUpper(kInt16s, weights.third, weights.fourth)}};
  }

  /// The samples of a step's columns, in their order. `row` is the first of the four rows to read.
  template <class Columns>
  Int16s Samples(const std::int16_t* row, std::ptrdiff_t pitch, const typename Columns::Taps& taps,
                 const Across& across, const Down& down) const {
    const auto sums = [&](std::int32_t vector) {
      const auto i = static_cast<std::size_t>(vector);
      const auto inRow = [&](std::ptrdiff_t number) {
        const std::int16_t* const samples = row + number * pitch - kBefore;
        const Int32s near = SumsOfPairs(taps.template Pairs<0>(samples, vector), across.near[i]);
        const Int32s far = SumsOfPairs(taps.template Pairs<2>(samples, vector), across.far[i]);
        if constexpr (kFirstPass == 16)
          return hn::Add(near, far);
        else
          return hn::Add(hn::Add(near, m_half), far);
      };
      const Int32s upper = SumsOfPairs(ShiftAndInterleave<kFirstPass>(inRow(0), inRow(1)), down.near[i]);
      const Int32s lower = SumsOfPairs(ShiftAndInterleave<kFirstPass>(inRow(2), inRow(3)), down.far[i]);
      return hn::Add(hn::Add(upper, m_offset), lower);
    };
    return hn::ShiftRightSame(Columns::template Join<kWeightBits>({sums(0), sums(1)}), m_drop);
  }

 private:
  WeightFormula m_weights;
  int m_drop;
  Int32s m_offset, m_half = OpaqueSet(kInt32s, 1 << (kFirstPass - 1));
};

}  // namespace
}  // namespace precise
