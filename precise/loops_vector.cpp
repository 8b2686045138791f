#include <limits>

#include "precise/blockwarp.h"
#include "precise/columns.h"
#include "precise/loops.h"
#include "precise/loops_rows.h"

// Nearly level lines are sampled as columns.h tells; warps along them are in blockwarp.cpp. On other lines a
// step makes kLanes columns, one in each 32-bit lane. Two 16-bit lanes hold a column's phases:
//
//   32-bit lane        0        1        2
//   phases           x0 y0    x1 y1    x2 y2    …    x: across, y: down
//   first weights    a0 d0    a1 d1    a2 d2    …    a: across, d: down; alike for the other taps
//
// `EvenPairs` of the weights of two taps are then the pairs of weights across that a lane needs, and
// `OddPairs` those down. A lane's samples are shuffled out of a window of sixteen bytes of the source row.
//
// The last step of a run ends with the run, so it makes some columns a second time. Runs shorter than a step
// go to the scalar loops.

namespace precise {
namespace {

/// The even 16-bit lanes of both vectors, or the odd ones, in pairs: first that of `first`, then that of
/// `second`.
Int16s EvenPairs(Int16s first, Int16s second) {
  return hn::OddEven(hn::BitCast(kInt16s, hn::ShiftLeft<16>(hn::BitCast(kInt32s, second))), first);
}
Int16s OddPairs(Int16s first, Int16s second) {
  return hn::OddEven(second, hn::BitCast(kInt16s, hn::ShiftRight<16>(hn::BitCast(kUint32s, first))));
}

/// Calls `work(column)` for steps of kColumns columns that cover the run, which is at least a step long.
template <std::int32_t kColumns = kLanes, class Work>
void InSteps(ColumnRun run, Work work) {
  for (std::int32_t column = run.begin; column < run.end; column += kColumns)
    work(column + kColumns <= run.end ? column : run.end - kColumns);
}

/// Each lane sums two neighbouring bytes over so many rows.
Uint16s SumPairsOfBytes(const std::uint8_t* samples, std::ptrdiff_t strideBytes, std::int32_t rows) {
  auto even = hn::Zero(kUint16s), odd = even;
  for (std::int32_t row = 0; row < rows; ++row) {
    const auto both = hn::BitCast(kUint16s, hn::LoadU(kBytes, samples + row * strideBytes));
    even = hn::Add(even, hn::And(both, hn::Set(kUint16s, 0xFF)));
    odd = hn::Add(odd, hn::ShiftRight<8>(both));
  }
  return hn::Add(even, odd);
}

// Most pictures have bytes and are averaged by blocks of 2 × 2 or 4 × 4.
void AverageBlocksInSteps(const std::uint8_t* samples, std::ptrdiff_t strideBytes, int bits, int blockShift,
                          std::int16_t* out, std::int32_t count) {
  if (bits == 8 && blockShift == 1 && count >= kStep) {
    InSteps<kStep>({0, count}, [&](std::int32_t block) {
      const auto sums = SumPairsOfBytes(samples + 2 * block, strideBytes, 2);
      hn::StoreU(hn::BitCast(kInt16s, sums), kInt16s, out + block);
    });
  } else if (bits == 8 && blockShift == 2 && count >= kLanes) {
    InSteps({0, count}, [&](std::int32_t block) {
      const auto pairs = hn::BitCast(kInt32s, SumPairsOfBytes(samples + 4 * block, strideBytes, 4));
      const Int32s sums = hn::Add(hn::And(pairs, hn::Set(kInt32s, 0xFFFF)), hn::ShiftRight<16>(pairs));
      constexpr hn::Rebind<std::int16_t, decltype(kInt32s)> kOutputs;
      const Int32s means = hn::ShiftRight<2>(hn::Add(sums, hn::Set(kInt32s, 2)));
      hn::StoreU(hn::DemoteTo(kOutputs, means), kOutputs, out + block);
    });
  } else {
    AverageBlocks(samples, strideBytes, bits, blockShift, out, count);
  }
}

/// The cubic B-spline at a sample: the weighted mean of the sample and its two neighbours.
class SplineMean {
 public:
  /// Adds `offset` to the weighted sum of each lane, then drops its lowest bits.
  template <int kDropped>
  Int16s Of(Int16s before, Int16s middle, Int16s after, Int32s offset) const {
    const Int16s sides = hn::Add(before, after);
    const auto mean = [&](Int16s pairs) {
      return hn::ShiftRight<kDropped>(hn::Add(SumsOfPairs(pairs, m_weights), offset));
    };
    return hn::ReorderDemote2To(kInt16s, mean(hn::InterleaveLower(kInt16s, sides, middle)),
                                mean(hn::InterleaveUpper(kInt16s, sides, middle)));
  }

 private:
  Int16s m_weights = hn::BitCast(kInt16s, OpaqueSet(kInt32s, kSplineMiddle << 16 | kSplineSide));
};

// Results of the first pass are made less by 2^13: the sum of two must fit 16 bits.
void SmoothRowInSteps(const std::array<const std::int16_t*, 3>& rows, std::int16_t* out, std::int32_t count) {
  if (count < kStep + 2) return SmoothRow(rows, out, count);
  std::int16_t ends[2];
  SmoothRow(rows, ends, 2);
  out[0] = ends[0];
  const std::int32_t beforeLast = count - 2;
  SmoothRow({rows[0] + beforeLast, rows[1] + beforeLast, rows[2] + beforeLast}, ends, 2);
  out[count - 1] = ends[1];
  const SplineMean mean;
  const Int32s across = OpaqueSet(kInt32s, kHalfOfFirstPass - (1 << (13 + kFirstPassShift)));
  const Int32s down = OpaqueSet(kInt32s, kHalfOfSecondPass + (1 << (13 + kWeightBits)));
  InSteps<kStep>({1, count - 1}, [&](std::int32_t column) {
    const auto inRow = [&](const std::int16_t* row) {
      row += column;
      return mean.Of<kFirstPassShift>(hn::LoadU(kInt16s, row - 1), hn::LoadU(kInt16s, row),
                                      hn::LoadU(kInt16s, row + 1), across);
    };
    const Int16s smooth = mean.Of<kSecondPassShift>(inRow(rows[0]), inRow(rows[1]), inRow(rows[2]), down);
    hn::StoreU(smooth, kInt16s, out + column);
  });
}

/// The positions of a step's lanes on one axis.
struct LanePositions {
  std::int64_t whole;  ///< the sample at or before the first lane's position
  Int32s fractions;    ///< in 2^-32 of a sample, the highest bit inverted
  Int32s carries;      ///< -1 where adding the fractions carried into whole samples
};

/// One axis of a source line.
class Axis {
 public:
  Axis(std::int64_t start, std::int64_t step) : m_start(start), m_step(step) {
    HWY_ALIGN std::int32_t lows[kLanes], wholes[kLanes];
    for (std::int32_t i = 0; i < kLanes; ++i) {
      lows[i] = static_cast<std::int32_t>(static_cast<std::uint32_t>(i * step));
      wholes[i] = static_cast<std::int32_t>((i * step) >> kPositionBits);
    }
    m_lows = hn::Load(kInt32s, lows);
    m_wholes = hn::Load(kInt32s, wholes);
    m_flippedLows = hn::Xor(m_lows, hn::Set(kInt32s, kFlip));
  }

  std::int64_t WholeAt(std::int32_t column) const { return (m_start + column * m_step) >> kPositionBits; }

  LanePositions At(std::int32_t column) const {
    const std::int64_t position = m_start + column * m_step;
    const auto fraction = static_cast<std::int32_t>(static_cast<std::uint32_t>(position));
    const Int32s fractions = hn::Add(m_lows, hn::Set(kInt32s, fraction ^ kFlip));
    return {position >> kPositionBits, fractions, hn::VecFromMask(kInt32s, hn::Lt(fractions, m_flippedLows))};
  }

  /// Whole samples of each lane's distance from the first lane. Carries come on top.
  Int32s WholesBeforeCarries() const { return m_wholes; }

 private:
  static constexpr std::int32_t kFlip = std::numeric_limits<std::int32_t>::min();
  std::int64_t m_start, m_step;
  Int32s m_lows, m_wholes, m_flippedLows;
};

/// Phases, 0 … 255: those of x in the even 16-bit lanes, those of y in the odd ones.
class Phases {
 public:
  Int16s Of(const LanePositions& x, const LanePositions& y) const {
    const Uint32s across = hn::ShiftRight<24>(hn::BitCast(kUint32s, x.fractions));
    const Uint32s down = hn::ShiftRight<8>(hn::BitCast(kUint32s, y.fractions));
    return hn::Xor(hn::OddEven(hn::BitCast(kInt16s, down), hn::BitCast(kInt16s, across)), m_flip);
  }

 private:
  Int16s m_flip = OpaqueSet(kInt16s, 0x80);
};

/// Where a step's samples are in a source row, whose samples have kSize bytes. A window has sixteen bytes.
/// With bytes, one window serves all lanes; with 16-bit words, each block of lanes has its own.
template <int kSize>
struct Window {
  static constexpr bool kIsShared = kSize == 1;
  static constexpr std::int32_t kSamples = 16 / kSize, kLanesOfOne = kIsShared ? kLanes : kLanesOfBlock;

  Bytes Load(const std::uint8_t* row) const {
    if constexpr (kIsShared)
      return hn::LoadDup128(kBytes, row + offsets[0]);
    else
      return LoadBlocks(kBytes, row + offsets[0], row + offsets[kBlocks - 1]);
  }

  /// Each lane's two samples, as 16-bit words.
  static Int16s Pairs(Bytes window, Bytes order) {
    return hn::BitCast(kInt16s, hn::TableLookupBytesOr0(window, order));
  }

  std::ptrdiff_t offsets[kBlocks];  ///< of the windows in the row, in bytes
  Bytes first, third;               ///< which bytes the lanes take for their samples 0 and 1, and for 2 and 3
};

/// Makes the windows along a line. The first sample of a column is `before` samples before its position.
template <int kSize>
class Windows {
 public:
  Windows(const Axis& axis, std::int32_t width, std::int32_t before)
      : m_axis(axis), m_width(width), m_before(before), m_steps(Replicated(axis.WholesBeforeCarries())) {}

  /// True when a window holds `taps` samples for each of its lanes.
  static bool Hold(const SourceLine& line, std::int32_t width, std::int32_t taps) {
    return width >= kSamples && line.stepX >= 0 &&
           (Window<kSize>::kLanesOfOne - 1) * line.stepX <= std::int64_t{kSamples - taps} << kPositionBits;
  }

  Window<kSize> At(const LanePositions& positions, std::int32_t column) const {
    Window<kSize> window;
    Bytes samples = hn::Sub(m_steps, hn::BitCast(kBytes, positions.carries));
    if constexpr (!kIsShared)
      samples = hn::Sub(samples, hn::BitCast(kBytes, hn::Broadcast<0>(hn::BitCast(kInt32s, samples))));
    HWY_ALIGN std::int32_t moved[kLanes];
    std::int64_t anyMoved = 0;
    for (std::int32_t block = 0; block < (kIsShared ? 1 : kBlocks); ++block) {
      const std::int64_t whole =
          block == 0 ? positions.whole : m_axis.WholeAt(column + block * kLanesOfBlock);
      // A window that would reach beyond the row's end begins earlier.
      const std::int64_t wanted = whole - m_before, last = m_width - kSamples;
      const std::int64_t begin = wanted < last ? wanted : last;
      window.offsets[block] = begin * kSize;
      anyMoved |= wanted - begin;
      for (std::int32_t i = 0; i < Window<kSize>::kLanesOfOne; ++i)
        moved[block * kLanesOfBlock + i] = static_cast<std::int32_t>(wanted - begin);
    }
    if (anyMoved != 0) samples = hn::Add(samples, Replicated(hn::Load(kInt32s, moved)));
    if constexpr (kSize == 2) samples = hn::Add(samples, samples);
    window.first = hn::Add(samples, hn::BitCast(kBytes, m_first));
    window.third = hn::Add(samples, hn::BitCast(kBytes, m_third));
    return window;
  }

 private:
  static constexpr std::int32_t kSamples = Window<kSize>::kSamples;
  static constexpr bool kIsShared = Window<kSize>::kIsShared;

  /// Repeats a lane's number, which a byte holds, in all of its bytes.
  static Bytes Replicated(Int32s numbers) {
    return hn::BitCast(kBytes, hn::Mul(numbers, hn::Set(kInt32s, 0x01010101)));
  }

  const Axis& m_axis;
  std::int32_t m_width, m_before;
  Bytes m_steps;
  // Which bytes of its window the first lane takes. An index of 128 or above gives 0, which widens a byte to
  // a word.
  Int32s m_first = OpaqueSet(kInt32s, kSize == 1 ? -0x7FFE8000 : 0x03020100);
  Int32s m_third = OpaqueSet(kInt32s, kSize == 1 ? -0x7FFC7FFE : 0x07060504);
};

/// The source rows of a step. All lanes begin at the same row, or some at the next one.
class SourceRows {
 public:
  SourceRows(const std::uint8_t* plane, std::ptrdiff_t strideBytes, const Axis& axis,
             const LanePositions& positions, std::int32_t column, std::int32_t before)
      : m_strideBytes(strideBytes), m_axis(axis), m_positions(positions) {
    const std::int64_t last = axis.WholeAt(column + kLanes - 1);
    m_first = positions.whole < last ? positions.whole : last;
    m_extent = positions.whole + last - 2 * m_first;
    m_pFirst = plane + (m_first - before) * strideBytes;
  }

  /// True when the lanes begin at more than two rows.
  bool AreTooMany() const { return m_extent > 1; }

  /// Each lane's results of `across` for the kRows rows that it reads. `across` takes a row and serves all
  /// lanes.
  template <std::size_t kRows, class Across>
  std::array<Int32s, kRows> Make(Across across) const {
    std::array<Int32s, kRows> made;
    for (std::size_t row = 0; row < kRows; ++row)
      made[row] = across(m_pFirst + static_cast<std::ptrdiff_t>(row) * m_strideBytes);
    if (m_extent == 0) return made;
    const Int32s wholes = hn::Sub(m_axis.WholesBeforeCarries(), m_positions.carries);
    const auto isBelow =
        hn::Gt(wholes, hn::Set(kInt32s, static_cast<std::int32_t>(m_first - m_positions.whole)));
    for (std::size_t row = 0; row + 1 < kRows; ++row)
      made[row] = hn::IfThenElse(isBelow, made[row + 1], made[row]);
    const Int32s last = across(m_pFirst + static_cast<std::ptrdiff_t>(kRows) * m_strideBytes);
    made[kRows - 1] = hn::IfThenElse(isBelow, last, made[kRows - 1]);
    return made;
  }

 private:
  std::ptrdiff_t m_strideBytes;
  const Axis& m_axis;
  const LanePositions& m_positions;
  std::int64_t m_first, m_extent;
  const std::uint8_t* m_pFirst;
};

/// Clamps 16-bit samples to their bits and subtracts 2^15, so that signed lanes hold them.
class Signed {
 public:
  explicit Signed(int bits)
      : m_largest(OpaqueSet(kUint16s, static_cast<std::uint16_t>(LargestSample(bits)))) {}

  Bytes operator()(Bytes window) const {
    const auto samples = hn::Min(hn::BitCast(kUint16s, window), m_largest);
    return hn::BitCast(kBytes, hn::Xor(samples, m_middle));
  }

 private:
  Uint16s m_largest, m_middle = OpaqueSet(kUint16s, 0x8000);
};

/// Samples by a separable filter of 4 × 4 taps, whose passes drop bits, rounded to the nearest. 16-bit lanes
/// hold the samples and the results of the first pass.
class ShortCubic {
 public:
  ShortCubic(int firstShift, int secondShift)
      : m_firstShift(firstShift),
        m_secondShift(secondShift),
        m_firstHalf(OpaqueSet(kInt32s, 1 << (firstShift - 1))),
        m_secondHalf(OpaqueSet(kInt32s, 1 << (secondShift - 1))) {}

  template <int kSize>
  Int32s Mean(const Window<kSize>& window, const SourceRows& rows, const Weights& weights) const {
    const Int16s near = EvenPairs(weights.first, weights.second),
                 far = EvenPairs(weights.third, weights.fourth);
    const auto made = rows.Make<4>([&](const std::uint8_t* row) {
      const Bytes samples = window.Load(row);
      return hn::Add(hn::Add(SumsOfPairs(window.Pairs(samples, window.first), near), m_firstHalf),
                     SumsOfPairs(window.Pairs(samples, window.third), far));
    });
    const Int32s sums =
        hn::Add(SumsOfPairs(ShiftedPairs(made[0], made[1]), OddPairs(weights.first, weights.second)),
                SumsOfPairs(ShiftedPairs(made[2], made[3]), OddPairs(weights.third, weights.fourth)));
    return hn::ShiftRightSame(hn::Add(sums, m_secondHalf), m_secondShift);
  }

 private:
  Int16s ShiftedPairs(Int32s low, Int32s high) const {
    return hn::OddEven(hn::BitCast(kInt16s, hn::ShiftLeftSame(high, 16 - m_firstShift)),
                       hn::BitCast(kInt16s, hn::ShiftRightSame(low, m_firstShift)));
  }

  int m_firstShift, m_secondShift;
  Int32s m_firstHalf, m_secondHalf;
};

/// The same for samples of up to 16 bits: the second pass multiplies 32-bit lanes.
class LongCubic {
 public:
  LongCubic(int bits, int firstShift, int secondShift)
      : m_signed(bits),
        m_firstShift(firstShift),
        m_secondShift(secondShift),
        m_firstHalf(OpaqueSet(kInt32s, (1 << (firstShift - 1)) + (1 << (15 + kWeightBits)))),
        m_secondHalf(OpaqueSet(kInt32s, 1 << (secondShift - 1))) {}

  Int32s Mean(const Window<2>& window, const SourceRows& rows, const Weights& weights) const {
    const Int16s near = EvenPairs(weights.first, weights.second),
                 far = EvenPairs(weights.third, weights.fourth);
    const auto made = rows.Make<4>([&](const std::uint8_t* row) {
      const Bytes samples = m_signed(window.Load(row));
      const Int32s sums = hn::Add(SumsOfPairs(window.Pairs(samples, window.first), near),
                                  SumsOfPairs(window.Pairs(samples, window.third), far));
      return hn::ShiftRightSame(hn::Add(sums, m_firstHalf), m_firstShift);
    });
    const auto product = [](Int32s row, Int16s weight) {
      return hn::Mul(row, hn::ShiftRight<16>(hn::BitCast(kInt32s, weight)));
    };
    const Int32s sums = hn::Add(hn::Add(product(made[0], weights.first), product(made[1], weights.second)),
                                hn::Add(product(made[2], weights.third), product(made[3], weights.fourth)));
    return hn::ShiftRightSame(hn::Add(sums, m_secondHalf), m_secondShift);
  }

 private:
  Signed m_signed;
  int m_firstShift, m_secondShift;
  Int32s m_firstHalf;  // with what `m_signed` subtracts, times the sum of the weights
  Int32s m_secondHalf;
};

/// The reference of a residual row, after the exposure.
class Expected {
 public:
  Expected(const std::int16_t* reference, const Exposure& exposure)
      : m_reference(reference),
        m_gain(OpaqueSet(kInt32s, exposure.gain)),
        m_offset(OpaqueSet(kInt32s, exposure.offset + (1 << (kExposureBits - 1)))) {}

  Int32s Int32sAt(std::int32_t column) const {
    constexpr hn::Rebind<std::int16_t, decltype(kInt32s)> kSamples;
    return Exposed(hn::PromoteTo(kInt32s, hn::LoadU(kSamples, m_reference + column)));
  }

  Int16s Int16sAt(std::int32_t column) const {
    const Int32s pairs = hn::BitCast(kInt32s, hn::LoadU(kInt16s, m_reference + column));
    return ShiftAndInterleave<0>(Exposed(hn::ShiftRight<16>(hn::ShiftLeft<16>(pairs))),
                                 Exposed(hn::ShiftRight<16>(pairs)));
  }

 private:
  Int32s Exposed(Int32s samples) const {
    return hn::ShiftRight<kExposureBits>(hn::Add(hn::Mul(samples, m_gain), m_offset));
  }

  const std::int16_t* m_reference;
  Int32s m_gain, m_offset;
};

/// A plane of brightness, and the line that it is sampled along.
struct Sampled {
  const std::int16_t* plane;
  std::ptrdiff_t pitch;
  const SourceLine& line;
};

/// Residuals along any line. Where windows do not hold its samples, `asDefined(run)` makes them by the scalar
/// loop.
void SlopedResiduals(const Sampled& source, ColumnRun run, const Expected& expected, std::int16_t* out,
                     const auto& asDefined) {
  constexpr int kSize = sizeof(std::int16_t);
  const SourceLine& line = source.line;
  const auto width = static_cast<std::int32_t>(source.pitch);
  if (run.end - run.begin < kLanes || !Windows<kSize>::Hold(line, width, 4)) return asDefined(run);
  const auto* const bytes = reinterpret_cast<const std::uint8_t*>(source.plane);
  const Axis xs(line.startX, line.stepX), ys(line.startY, line.stepY);
  const Windows<kSize> windows(xs, width, 1);
  const Phases phases;
  const SplineWeights weights;
  const ShortCubic cubic(kFirstPassShift, kSecondPassShift);
  InSteps(run, [&](std::int32_t column) {
    constexpr hn::Rebind<std::int16_t, decltype(kInt32s)> kOutputs;
    const LanePositions x = xs.At(column), y = ys.At(column);
    const SourceRows rows(bytes, source.pitch * kSize, ys, y, column, 1);
    if (rows.AreTooMany()) return asDefined({column, column + kLanes});
    const Int32s samples = cubic.Mean(windows.At(x, column), rows, weights.At(phases.Of(x, y)));
    hn::StoreU(hn::DemoteTo(kOutputs, hn::Sub(samples, expected.Int32sAt(column))), kOutputs, out + column);
  });
}

/// Residuals along lines that UnitColumns suit.
class LevelResiduals {
 public:
  explicit LevelResiduals(const Sampled& source)
      : m_source(source),
        m_columns(source.line.stepX),
        m_fractions(FractionsOf<UnitColumns>(source.line.stepY)) {}

  /// The end of the piece that begins at run.begin.
  std::int32_t End(ColumnRun run) const {
    return EndOfPiece(m_columns, PositionAt(run.begin), m_source.line.stepY, run);
  }

  /// Writes the residuals of a piece, which is at least a step long.
  void Make(ColumnRun piece, const Expected& expected, std::int16_t* out) const {
    const auto [x, y] = PositionAt(piece.begin);
    const std::int16_t* const row = m_source.plane + ((y >> kPositionBits) - 1) * m_source.pitch;
    const UnitColumns::Taps first(m_columns, x, 0);
    const auto across = m_cubic.AcrossAt<UnitColumns>(first);
    for (std::int32_t column = piece.begin; column < piece.end; column += kStep) {
      if (column + kStep > piece.end) column = piece.end - kStep;
      const UnitColumns::Taps taps(m_columns, x, piece.begin - column);
      const Uint32s start = hn::Set(kUint32s, static_cast<std::uint32_t>(PositionAt(column).y));
      const auto down = m_cubic.DownAt(
          {PhasesOf(hn::Add(start, m_fractions[0])), PhasesOf(hn::Add(start, m_fractions[1]))});
      const Int16s samples = m_cubic.Samples<UnitColumns>(row, m_source.pitch, taps, across, down);
      hn::StoreU(hn::Sub(samples, expected.Int16sAt(column)), kInt16s, out + column);
    }
  }

 private:
  Position PositionAt(std::int32_t column) const {
    const SourceLine& line = m_source.line;
    return {line.startX + column * line.stepX, line.startY + column * line.stepY};
  }

  const Sampled& m_source;
  UnitColumns m_columns;
  Both<Uint32s> m_fractions;
  Cubic<SplineWeights, kFirstPassShift> m_cubic{kSecondPassShift - kWeightBits, kHalfOfSecondPass};
};

void ResidualRowInSteps(const std::int16_t* plane, std::ptrdiff_t pitch, const SourceLine& line,
                        ColumnRun run, const std::int16_t* reference, const Exposure& exposure,
                        std::int16_t* out) {
  const Sampled source = {plane, pitch, line};
  const Expected expected(reference, exposure);
  const auto asDefined = [&](ColumnRun part) {
    kScalarLoops.residualRow(plane, pitch, line, part, reference, exposure, out);
  };
  if (!UnitColumns::Suit(line)) return SlopedResiduals(source, run, expected, out, asDefined);
  const LevelResiduals level(source);
  while (run.begin < run.end) {
    const ColumnRun piece = {run.begin, level.End(run)};
    if (piece.end - piece.begin >= kStep)
      level.Make(piece, expected, out);
    else
      SlopedResiduals(source, piece, expected, out, asDefined);
    run.begin = piece.end;
  }
}

/// The filter of the bicubic warp, for samples of kSize bytes.
template <int kSize>
class Bicubic {
 public:
  static constexpr std::int32_t kTaps = 4, kBefore = 1;
  static constexpr WarpRows Loops::*kScalar = &Loops::warpBicubic;
  static constexpr auto kWarpBlocks = WarpBlocksBicubic;

  explicit Bicubic(int bits) : m_mean(MakeMean(bits)) {}

  Int32s Sample(const Window<kSize>& window, const SourceRows& rows, Int16s phases) const {
    return m_mean.Mean(window, rows, m_weights.At(phases));
  }

 private:
  static auto MakeMean(int bits) {
    if constexpr (kSize == 1)
      return ShortCubic(FirstPassShift(8), 2 * kWeightBits - FirstPassShift(8));
    else
      return LongCubic(bits, FirstPassShift(bits), 2 * kWeightBits - FirstPassShift(bits));
  }

  SharpWeights m_weights;
  decltype(MakeMean(8)) m_mean;
};

/// The filter of the bilinear warp, for samples of kSize bytes.
template <int kSize>
class Bilinear {
 public:
  static constexpr std::int32_t kTaps = 2, kBefore = 0;
  static constexpr WarpRows Loops::*kScalar = &Loops::warpBilinear;
  static constexpr auto kWarpBlocks = WarpBlocksBilinear;

  explicit Bilinear(int bits) : m_signed(bits) {}

  Int32s Sample(const Window<kSize>& window, const SourceRows& rows, Int16s phases) const {
    const Int16s pairs = EvenPairs(hn::Sub(m_one, phases), phases);
    const auto made = rows.Make<2>([&](const std::uint8_t* row) {
      const Bytes samples = window.Load(row);
      if constexpr (kSize == 1)
        return SumsOfPairs(window.Pairs(samples, window.first), pairs);
      else
        return hn::Add(SumsOfPairs(window.Pairs(m_signed(samples), window.first), pairs), m_middle);
    });
    const Int32s down = hn::ShiftRight<16>(hn::BitCast(kInt32s, phases));
    const Int32s sums = hn::Add(hn::ShiftLeft<8>(made[0]), hn::Mul(hn::Sub(made[1], made[0]), down));
    return hn::BitCast(kInt32s, hn::ShiftRight<16>(hn::BitCast(kUint32s, hn::Add(sums, m_half))));
  }

 private:
  Signed m_signed;
  Int16s m_one = OpaqueSet(kInt16s, 256);
  // What `Signed` subtracts, times the sum of the weights across; and half of what is dropped.
  Int32s m_middle = OpaqueSet(kInt32s, 1 << (15 + 8)), m_half = OpaqueSet(kInt32s, 1 << 15);
};

/// Warps a row of one plane along any line, kLanes columns a step. Columns near the plane's edges go to the
/// scalar loop, and so do steps that read too many source rows.
template <template <int kSize> class Sampler, int kSize>
void WarpRow(const SourcePlane& plane, const WarpedRow& row, std::uint8_t* out) {
  using Of = Sampler<kSize>;
  const ColumnRun inside =
      ColumnsWithSamples(row.line, plane, Of::kBefore, Of::kTaps - 1 - Of::kBefore, row.covered);
  const auto warpAsDefined = [&](ColumnRun run) {
    const WarpedRow part = {row.line, run, {out}};
    (kScalarLoops.*Of::kScalar)({plane}, &part, 1);
  };
  if (inside.end - inside.begin < kLanes || !Windows<kSize>::Hold(row.line, plane.width, Of::kTaps))
    return warpAsDefined(row.covered);
  warpAsDefined({row.covered.begin, inside.begin});
  warpAsDefined({inside.end, row.covered.end});
  const Axis xs(row.line.startX + kHalfPhase, row.line.stepX),
      ys(row.line.startY + kHalfPhase, row.line.stepY);
  const Windows<kSize> windows(xs, plane.width, Of::kBefore);
  const Phases phases;
  const Of sampler(plane.bits);
  const Int32s largest = OpaqueSet(kInt32s, LargestSample(plane.bits));
  InSteps(inside, [&](std::int32_t column) {
    const LanePositions x = xs.At(column), y = ys.At(column);
    const SourceRows rows(plane.samples, plane.strideBytes, ys, y, column, Of::kBefore);
    if (rows.AreTooMany()) return warpAsDefined({column, column + kLanes});
    const Int32s samples = sampler.Sample(windows.At(x, column), rows, phases.Of(x, y));
    std::uint8_t* const to = out + column * std::ptrdiff_t{kSize};
    if constexpr (kSize == 1) {
      constexpr hn::Rebind<std::uint8_t, decltype(kInt32s)> kOutputs;
      hn::StoreU(hn::DemoteTo(kOutputs, samples), kOutputs, to);
    } else {
      constexpr hn::Rebind<std::uint16_t, decltype(kInt32s)> kOutputs;
      constexpr hn::Repartition<std::uint8_t, decltype(kOutputs)> kOutputBytes;
      const auto clamped = hn::DemoteTo(kOutputs, hn::Min(samples, largest));
      hn::StoreU(hn::BitCast(kOutputBytes, clamped), kOutputBytes, to);
    }
  });
}

template <template <int kSize> class Sampler>
void Warp(const CositedPlanes& planes, const WarpedRow* rows, std::int32_t count) {
  if (Sampler<1>::kWarpBlocks(planes, rows, count)) return;
  for (std::size_t i = 0; i < planes.size() && planes[i].samples != nullptr; ++i)
    for (const WarpedRow* row = rows; row != rows + count; ++row)
      if (planes[i].bits == 8)
        WarpRow<Sampler, 1>(planes[i], *row, row->out[i]);
      else
        WarpRow<Sampler, 2>(planes[i], *row, row->out[i]);
}

void WarpNearest(const CositedPlanes& planes, const WarpedRow* rows, std::int32_t count) {
  kScalarLoops.warpNearest(planes, rows, count);
}

/// The 8 to 16 samples of a cell's row in sixteen lanes: the first eight samples and the last eight, which
/// may overlap.
class CellColumns {
 public:
  static constexpr int kVectors = 16 / hn::MaxLanes(kInt16s);

  explicit CellColumns(std::int32_t width) : m_last(width - 8) {
    HWY_ALIGN std::int16_t counts[16];
    for (std::int32_t i = 0; i < 16; ++i) counts[i] = i < 8 || i >= 16 - m_last ? -1 : 0;
    for (int i = 0; i < kVectors; ++i) m_counts[i] = hn::Load(kInt16s, counts + 8 * i);
  }

  Int16s Load(const std::int16_t* row, int vector) const {
    return LoadBlocks(kInt16s, row + vector * m_last, row + m_last);
  }

  /// The values, with 0 for the second copy of each sample that is there twice.
  Int16s Counted(Int16s values, int vector) const { return hn::And(values, m_counts[vector]); }

 private:
  std::ptrdiff_t m_last;
  Int16s m_counts[kVectors];
};

/// Weights in 1/32768. From the limit on products overflow, but do not count.
Int16s WeightsOf(Int16s residuals, const RobustWeight& weight) {
  const auto limit = static_cast<std::int16_t>(weight.limit < 32767 ? weight.limit : 32767);
  const Int16s distance = hn::Abs(residuals);
  const Int16s share = hn::Mul(distance, hn::Set(kInt16s, static_cast<std::int16_t>(weight.scale)));
  const Int16s root = hn::Sub(hn::Set(kInt16s, 32767), hn::MulFixedPoint15(share, share));
  return hn::IfThenElseZero(hn::Lt(distance, hn::Set(kInt16s, limit)), hn::MulFixedPoint15(root, root));
}

CellSums SumCellInSteps(const std::int16_t* reference, const std::int16_t* residuals, std::ptrdiff_t pitch,
                        std::int32_t width, std::int32_t height, const RobustWeight& weight) {
  if (width < 8) return kScalarLoops.sumCell(reference, residuals, pitch, width, height, weight);
  const CellColumns columns(width);
  const Int32s zero = hn::Zero(kInt32s);
  const Int16s one = hn::Set(kInt16s, 1);
  CellSumsOf<Int32s> sums = {zero, zero, zero, zero, zero, zero, zero,
                             zero, zero, zero, zero, zero, zero, zero};
  const auto weigh = [](Int16s w, Int16s a) { return hn::MulFixedPoint15(w, a); };
  const auto add = [](Int32s& sum, Int16s a, Int16s b) { sum = hn::Add(sum, SumsOfPairs(a, b)); };
  for (std::int32_t row = 0; row < height; ++row, reference += pitch, residuals += pitch) {
    for (int i = 0; i < CellColumns::kVectors; ++i) {
      const Int16s r = columns.Load(residuals, i);
      const Int16s w = columns.Counted(WeightsOf(r, weight), i);
      const Int16s x = hn::Sub(columns.Load(reference + 1, i), columns.Load(reference - 1, i));
      const Int16s y = hn::Sub(columns.Load(reference + pitch, i), columns.Load(reference - pitch, i));
      const Int16s b = hn::Sub(columns.Load(reference, i), hn::Set(kInt16s, kMiddleBrightness));
      AddToCell<Int32s, Int16s>(sums, {w, x, y, b, r, one}, weigh, add);
    }
  }
  const auto total = [](Int32s sum) { return hn::GetLane(hn::SumOfLanes(kInt32s, sum)); };
  return {total(sums.xx), total(sums.xy), total(sums.yy), total(sums.xb), total(sums.yb),
          total(sums.x),  total(sums.y),  total(sums.bb), total(sums.b),  total(sums.one),
          total(sums.xr), total(sums.yr), total(sums.br), total(sums.r)};
}

}  // namespace

constinit const Loops kVectorLoops = {HWY_TARGET == HWY_NEON ? "neon" : "avx2",
                                      AverageBlocksInSteps,
                                      SmoothRowInSteps,
                                      HalveRow,
                                      ResidualRowInSteps,
                                      CountBelow,
                                      SumCellInSteps,
                                      AddGradientProducts,
                                      SumCappedDifferences,
                                      WarpNearest,
                                      Warp<Bilinear>,
                                      Warp<Bicubic>};

}  // namespace precise
