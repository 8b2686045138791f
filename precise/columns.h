#pragma once

#include <array>
#include <limits>

#include "precise/sourceline.h"
#include "precise/vectors.h"

// Sampling along lines that are nearly level: they read the same source rows for dozens of columns, a piece.
// A step makes kStep columns of a piece, as two vectors.

namespace precise {
namespace {

inline constexpr std::int32_t kStep = 2 * kLanes;  // as many as a vector has 16-bit words
inline constexpr int kPhaseShift = kPositionBits - kPhaseBits;
inline constexpr std::int64_t kOnePhase = std::int64_t{1} << kPhaseShift;
inline constexpr std::int64_t kHalfPhase = kOnePhase / 2;

struct Position {
  std::int64_t x, y;
};

/// Whether most pieces are two steps long or more.
inline bool IsNearlyLevel(const SourceLine& line) {
  constexpr std::int64_t kMaxStep = kOneSample / (2 * kStep);
  return line.stepY >= -kMaxStep && line.stepY <= kMaxStep;
}

/// For how many columns, this one included, a position keeps all bits but the lowest.
inline std::int64_t ColumnsUntilChange(std::int64_t position, std::int64_t step, int lowBits) {
  const std::int64_t size = std::int64_t{1} << lowBits, rest = position & (size - 1);
  if (step == 0) return std::numeric_limits<std::int64_t>::max();
  return step > 0 ? (size - 1 - rest) / step + 1 : rest / -step + 1;
}

inline Ints PhasesOf(Words fractions) { return hn::BitCast(kInts, hn::ShiftRight<kPhaseShift>(fractions)); }

/// A step's columns are made in two vectors.
template <class Vector>
using Both = std::array<Vector, 2>;

/// How far below its first column a step's columns read, in 2^-32 of a sample, without whole samples.
template <class Columns>
Both<Words> FractionsOf(std::int64_t stepY) {
  Both<Words> fractions;
  for (std::int32_t vector = 0; vector < 2; ++vector) {
    HWY_ALIGN std::uint32_t lows[kLanes];
    for (std::int32_t lane = 0; lane < kLanes; ++lane)
      lows[lane] = static_cast<std::uint32_t>(Columns::ColumnOf(vector, lane) * stepY);
    fractions[static_cast<std::size_t>(vector)] = hn::Load(kWords, lows);
  }
  return fractions;
}

/// The sums without their lowest bits, as 16-bit words: those of `odd` above those of `even`.
template <int kDropped>
Shorts Halves(Ints even, Ints odd) {
  return hn::OddEven(hn::BitCast(kShorts, hn::ShiftLeft<16 - kDropped>(odd)),
                     hn::BitCast(kShorts, hn::ShiftRight<kDropped>(even)));
}

/// Columns that stand a sample apart: all of a piece have the same phase. Even ones make a vector, and odd
/// ones.
class UnitColumns {
 public:
  static constexpr bool kHaveOnePhase = true;

  explicit UnitColumns(std::int64_t step) : m_drift(step - kOneSample) {}

  /// Whether most pieces are two steps long or more.
  static bool Suit(const SourceLine& line) {
    constexpr std::int64_t kMaxDrift = kOnePhase / (2 * kStep);
    return line.stepX >= kOneSample - kMaxDrift && line.stepX <= kOneSample + kMaxDrift &&
           IsNearlyLevel(line);
  }

  static constexpr std::int32_t ColumnOf(std::int32_t vector, std::int32_t lane) { return 2 * lane + vector; }

  /// For how many columns the phase stays.
  std::int64_t Stay(std::int64_t x) const { return ColumnsUntilChange(x, m_drift, kPhaseShift); }

  /// `x` is the position of the column that is so many columns after the step's first.
  class Taps {
   public:
    Taps(const UnitColumns&, std::int64_t x, std::int32_t column)
        : m_phase(static_cast<std::int32_t>(x >> kPhaseShift) & ((1 << kPhaseBits) - 1)),
          m_first((x >> kPositionBits) - column) {}

    Both<Ints> Phases() const { return {hn::Set(kInts, m_phase), hn::Set(kInts, m_phase)}; }

    template <std::int32_t kTap>
    Shorts Pairs(const std::int16_t* row, std::int32_t vector) const {
      return hn::LoadU(kShorts, row + m_first + vector + kTap);
    }

   private:
    std::int32_t m_phase;
    std::ptrdiff_t m_first;
  };

  /// The sums without their lowest bits, in the order of columns.
  template <int kDropped>
  static Shorts Join(const Both<Ints>& sums) {
    return Halves<kDropped>(sums[0], sums[1]);
  }

 private:
  std::int64_t m_drift;
};

/// Where the piece ends that begins with the run, at a position `at`.
template <class Columns>
std::int32_t EndOfPiece(const Columns& columns, const Position& at, std::int64_t stepY, ColumnRun run) {
  const std::int64_t ofX = columns.Stay(at.x), ofY = ColumnsUntilChange(at.y, stepY, kPositionBits);
  const std::int64_t stay = ofX < ofY ? ofX : ofY;
  return stay < run.end - run.begin ? run.begin + static_cast<std::int32_t>(stay) : run.end;
}

/// Makes samples by four taps across and four down. Its first pass drops bits and rounds; where it drops 16,
/// samples already hold the half that rounds. The second pass adds `offset` and drops 14 bits, and then
/// `drop` more.
template <class WeightFormula, int kFirstPass>
class Cubic {
 public:
  static constexpr std::int32_t kTaps = 4, kBefore = 1;

  /// Weights of the first two taps, and of the last two.
  struct Pairs {
    Both<Shorts> near, far;
  };
  using Across = Pairs;
  using Down = Pairs;

  Cubic(int drop, std::int32_t offset) : m_drop(drop), m_offset(Kept(kInts, offset)) {}

  template <class Columns>
  Across AcrossAt(const typename Columns::Taps& taps) const {
    const Both<Ints> phases = taps.Phases();
    Across pairs = DownAt(phases);
    // Compilers do not see that these are the same.
    if constexpr (Columns::kHaveOnePhase)
      pairs = {{pairs.near[0], pairs.near[0]}, {pairs.far[0], pairs.far[0]}};
    return pairs;
  }

  Down DownAt(const Both<Ints>& phases) const {
    const Weights weights = m_weights.At(hn::ReorderDemote2To(kShorts, phases[0], phases[1]));
    return {{hn::InterleaveLower(kShorts, weights.first, weights.second),
             hn::InterleaveUpper(kShorts, weights.first, weights.second)},
            {hn::InterleaveLower(kShorts, weights.third, weights.fourth),
             hn::InterleaveUpper(kShorts, weights.third, weights.fourth)}};
  }

  /// `row` is the first of the rows to read.
  template <class Columns>
  Shorts Samples(const std::int16_t* row, std::ptrdiff_t pitch, const typename Columns::Taps& taps,
                 const Across& across, const Down& down) const {
    const auto sums = [&](std::int32_t vector) {
      const auto i = static_cast<std::size_t>(vector);
      const auto inRow = [&](std::ptrdiff_t number) {
        const std::int16_t* const samples = row + number * pitch - kBefore;
        const Ints near = SumsOfPairs(taps.template Pairs<0>(samples, vector), across.near[i]);
        const Ints far = SumsOfPairs(taps.template Pairs<2>(samples, vector), across.far[i]);
        if constexpr (kFirstPass == 16)
          return hn::Add(near, far);
        else
          return hn::Add(hn::Add(near, m_half), far);
      };
      const Ints upper = SumsOfPairs(Halves<kFirstPass>(inRow(0), inRow(1)), down.near[i]);
      const Ints lower = SumsOfPairs(Halves<kFirstPass>(inRow(2), inRow(3)), down.far[i]);
      return hn::Add(hn::Add(upper, m_offset), lower);
    };
    return hn::ShiftRightSame(Columns::template Join<kWeightBits>({sums(0), sums(1)}), m_drop);
  }

 private:
  WeightFormula m_weights;
  int m_drop;
  Ints m_offset, m_half = Kept(kInts, 1 << (kFirstPass - 1));
};

}  // namespace
}  // namespace precise
