#include <limits>

#include "precise/blockwarp.h"
#include "precise/columns.h"
#include "precise/loops.h"
#include "precise/loops_rows.h"

// What is left over at a row's end is done once more together with its neighbours, by a last step that ends
// with the run. Runs shorter than a step are left to the scalar loops.

namespace precise {
namespace {

/// The low halves, or the high halves, of both: those of `odd` above those of `even`.
Shorts EvenPairs(Shorts even, Shorts odd) {
  return hn::OddEven(hn::BitCast(kShorts, hn::ShiftLeft<16>(hn::BitCast(kInts, odd))), even);
}
Shorts OddPairs(Shorts even, Shorts odd) {
  return hn::OddEven(odd, hn::BitCast(kShorts, hn::ShiftRight<16>(hn::BitCast(kWords, even))));
}

/// `work(column)` for steps of so many columns that cover the run.
template <std::int32_t kColumns = kLanes, class Work>
void InSteps(ColumnRun run, Work work) {
  for (std::int32_t column = run.begin; column < run.end; column += kColumns)
    work(column + kColumns <= run.end ? column : run.end - kColumns);
}

/// Sums of pairs of bytes over so many rows.
hn::Vec<decltype(kHalfWords)> SumPairsOfBytes(const std::uint8_t* samples, std::ptrdiff_t strideBytes,
                                              std::int32_t rows) {
  auto even = hn::Zero(kHalfWords), odd = even;
  for (std::int32_t row = 0; row < rows; ++row) {
    const auto both = hn::BitCast(kHalfWords, hn::LoadU(kBytes, samples + row * strideBytes));
    even = hn::Add(even, hn::And(both, hn::Set(kHalfWords, 0xFF)));
    odd = hn::Add(odd, hn::ShiftRight<8>(both));
  }
  return hn::Add(even, odd);
}

// Most pictures are averaged by blocks of 2 × 2 or 4 × 4 bytes.
void AverageBlocksInSteps(const std::uint8_t* samples, std::ptrdiff_t strideBytes, int bits, int blockShift,
                          std::int16_t* out, std::int32_t count) {
  if (bits == 8 && blockShift == 1 && count >= kStep) {
    InSteps<kStep>({0, count}, [&](std::int32_t block) {
      const auto sums = SumPairsOfBytes(samples + 2 * block, strideBytes, 2);
      hn::StoreU(hn::BitCast(kShorts, sums), kShorts, out + block);
    });
  } else if (bits == 8 && blockShift == 2 && count >= kLanes) {
    InSteps({0, count}, [&](std::int32_t block) {
      const auto pairs = hn::BitCast(kInts, SumPairsOfBytes(samples + 4 * block, strideBytes, 4));
      const Ints sums = hn::Add(hn::And(pairs, hn::Set(kInts, 0xFFFF)), hn::ShiftRight<16>(pairs));
      constexpr hn::Rebind<std::int16_t, decltype(kInts)> kOutputs;
      const Ints means = hn::ShiftRight<2>(hn::Add(sums, hn::Set(kInts, 2)));
      hn::StoreU(hn::DemoteTo(kOutputs, means), kOutputs, out + block);
    });
  } else {
    AverageBlocks(samples, strideBytes, bits, blockShift, out, count);
  }
}

/// Makes the B-spline's mean of three neighbours at samples.
class SplineMean {
 public:
  /// Of vectors of 16-bit words; drops bits, after `offset` was added.
  template <int kDropped>
  Shorts Of(Shorts before, Shorts middle, Shorts after, Ints offset) const {
    const Shorts sides = hn::Add(before, after);
    const auto mean = [&](Shorts pairs) {
      return hn::ShiftRight<kDropped>(hn::Add(SumsOfPairs(pairs, m_weights), offset));
    };
    return hn::ReorderDemote2To(kShorts, mean(hn::InterleaveLower(kShorts, sides, middle)),
                                mean(hn::InterleaveUpper(kShorts, sides, middle)));
  }

 private:
  Shorts m_weights = hn::BitCast(kShorts, Kept(kInts, kSplineMiddle << 16 | kSplineSide));
};

// Means of the first pass are less by 2^13, or the sum of two would not fit 16 bits.
void SmoothRowInSteps(const std::array<const std::int16_t*, 3>& rows, std::int16_t* out, std::int32_t count) {
  if (count < kStep + 2) return SmoothRow(rows, out, count);
  std::int16_t ends[2];
  SmoothRow(rows, ends, 2);
  out[0] = ends[0];
  const std::int32_t beforeLast = count - 2;
  SmoothRow({rows[0] + beforeLast, rows[1] + beforeLast, rows[2] + beforeLast}, ends, 2);
  out[count - 1] = ends[1];
  const SplineMean mean;
  const Ints across = Kept(kInts, kHalfOfFirstPass - (1 << (13 + kFirstPassBits)));
  const Ints down = Kept(kInts, kHalfOfSecondPass + (1 << (13 + kWeightBits)));
  InSteps<kStep>({1, count - 1}, [&](std::int32_t column) {
    const auto inRow = [&](const std::int16_t* row) {
      row += column;
      return mean.Of<kFirstPassBits>(hn::LoadU(kShorts, row - 1), hn::LoadU(kShorts, row),
                                     hn::LoadU(kShorts, row + 1), across);
    };
    const Shorts smooth = mean.Of<kSecondPassBits>(inRow(rows[0]), inRow(rows[1]), inRow(rows[2]), down);
    hn::StoreU(smooth, kShorts, out + column);
  });
}

/// Where a step's lanes stand on one axis.
struct Spots {
  std::int64_t whole;  ///< of the first lane
  Ints fractions;      ///< in 2^32 of a sample, the highest bit inverted
  Ints carries;        ///< -1 where the fractions' sum came over a sample
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
    m_lows = hn::Load(kInts, lows);
    m_wholes = hn::Load(kInts, wholes);
    m_flippedLows = hn::Xor(m_lows, hn::Set(kInts, kFlip));
  }

  std::int64_t WholeAt(std::int32_t column) const { return (m_start + column * m_step) >> kPositionBits; }

  Spots At(std::int32_t column) const {
    const std::int64_t position = m_start + column * m_step;
    const auto fraction = static_cast<std::int32_t>(static_cast<std::uint32_t>(position));
    const Ints fractions = hn::Add(m_lows, hn::Set(kInts, fraction ^ kFlip));
    return {position >> kPositionBits, fractions, hn::VecFromMask(kInts, hn::Lt(fractions, m_flippedLows))};
  }

  /// Whole samples beyond the first lane's, before carries are subtracted.
  Ints WholesBeforeCarries() const { return m_wholes; }

 private:
  static constexpr std::int32_t kFlip = std::numeric_limits<std::int32_t>::min();
  std::int64_t m_start, m_step;
  Ints m_lows, m_wholes, m_flippedLows;
};

/// The phases in 256 of a sample: of x in the low halves, of y in the high ones.
class Phases {
 public:
  Shorts Of(const Spots& x, const Spots& y) const {
    const Words across = hn::ShiftRight<24>(hn::BitCast(kWords, x.fractions));
    const Words down = hn::ShiftRight<8>(hn::BitCast(kWords, y.fractions));
    return hn::Xor(hn::OddEven(hn::BitCast(kShorts, down), hn::BitCast(kShorts, across)), m_flip);
  }

 private:
  Shorts m_flip = Kept(kShorts, 0x80);
};

/// Sixteen bytes of a source row for each block of lanes, or for all of them, and which of these the lanes
/// take. `kSize` is that of a sample.
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

  /// Samples as 16-bit pairs, in the order that a lane has them.
  static Shorts Pairs(Bytes window, Bytes order) {
    return hn::BitCast(kShorts, hn::TableLookupBytesOr0(window, order));
  }

  std::ptrdiff_t offsets[kBlocks];
  Bytes first, third;  ///< orders of the samples 0 and 1, and 2 and 3
};

/// Makes the windows along a row.
template <int kSize>
class Windows {
 public:
  Windows(const Axis& axis, std::int32_t width, std::int32_t before)
      : m_axis(axis), m_width(width), m_before(before), m_steps(Replicated(axis.WholesBeforeCarries())) {}

  /// Windows hold `taps` samples for each lane.
  static bool Hold(const SourceLine& line, std::int32_t width, std::int32_t taps) {
    return width >= kSamples && line.stepX >= 0 &&
           (Window<kSize>::kLanesOfOne - 1) * line.stepX <= std::int64_t{kSamples - taps} << kPositionBits;
  }

  Window<kSize> At(const Spots& spots, std::int32_t column) const {
    Window<kSize> window;
    Bytes samples = hn::Sub(m_steps, hn::BitCast(kBytes, spots.carries));
    if constexpr (!kIsShared)
      samples = hn::Sub(samples, hn::BitCast(kBytes, hn::Broadcast<0>(hn::BitCast(kInts, samples))));
    HWY_ALIGN std::int32_t moved[kLanes];
    std::int64_t anyMoved = 0;
    for (std::int32_t block = 0; block < (kIsShared ? 1 : kBlocks); ++block) {
      const std::int64_t whole = block == 0 ? spots.whole : m_axis.WholeAt(column + block * kLanesOfBlock);
      // No window reaches beyond the row.
      const std::int64_t wanted = whole - m_before, last = m_width - kSamples;
      const std::int64_t begin = wanted < last ? wanted : last;
      window.offsets[block] = begin * kSize;
      anyMoved |= wanted - begin;
      for (std::int32_t i = 0; i < Window<kSize>::kLanesOfOne; ++i)
        moved[block * kLanesOfBlock + i] = static_cast<std::int32_t>(wanted - begin);
    }
    if (anyMoved != 0) samples = hn::Add(samples, Replicated(hn::Load(kInts, moved)));
    if constexpr (kSize == 2) samples = hn::Add(samples, samples);
    window.first = hn::Add(samples, hn::BitCast(kBytes, m_first));
    window.third = hn::Add(samples, hn::BitCast(kBytes, m_third));
    return window;
  }

 private:
  static constexpr std::int32_t kSamples = Window<kSize>::kSamples;
  static constexpr bool kIsShared = Window<kSize>::kIsShared;

  /// A small number in each byte of its lane.
  static Bytes Replicated(Ints numbers) {
    return hn::BitCast(kBytes, hn::Mul(numbers, hn::Set(kInts, 0x01010101)));
  }

  const Axis& m_axis;
  std::int32_t m_width, m_before;
  Bytes m_steps;
  // Bytes of a lane's pairs; what comes from 128 or above is 0.
  Ints m_first = Kept(kInts, kSize == 1 ? -0x7FFE8000 : 0x03020100);
  Ints m_third = Kept(kInts, kSize == 1 ? -0x7FFC7FFE : 0x07060504);
};

/// Source rows of a step. Lanes read from one row, or from two neighbours.
class SourceRows {
 public:
  SourceRows(const std::uint8_t* plane, std::ptrdiff_t strideBytes, const Axis& axis, const Spots& spots,
             std::int32_t column, std::int32_t before)
      : m_strideBytes(strideBytes), m_axis(axis), m_spots(spots) {
    const std::int64_t last = axis.WholeAt(column + kLanes - 1);
    m_first = spots.whole < last ? spots.whole : last;
    m_extent = spots.whole + last - 2 * m_first;
    m_pFirst = plane + (m_first - before) * strideBytes;
  }

  bool AreTooMany() const { return m_extent > 1; }

  /// What `across` makes of each of `kRows` rows that each lane reads.
  template <std::size_t kRows, class Across>
  std::array<Ints, kRows> Make(Across across) const {
    std::array<Ints, kRows> made;
    for (std::size_t row = 0; row < kRows; ++row)
      made[row] = across(m_pFirst + static_cast<std::ptrdiff_t>(row) * m_strideBytes);
    if (m_extent == 0) return made;
    const Ints wholes = hn::Sub(m_axis.WholesBeforeCarries(), m_spots.carries);
    const auto isBelow = hn::Gt(wholes, hn::Set(kInts, static_cast<std::int32_t>(m_first - m_spots.whole)));
    for (std::size_t row = 0; row + 1 < kRows; ++row)
      made[row] = hn::IfThenElse(isBelow, made[row + 1], made[row]);
    const Ints last = across(m_pFirst + static_cast<std::ptrdiff_t>(kRows) * m_strideBytes);
    made[kRows - 1] = hn::IfThenElse(isBelow, last, made[kRows - 1]);
    return made;
  }

 private:
  std::ptrdiff_t m_strideBytes;
  const Axis& m_axis;
  const Spots& m_spots;
  std::int64_t m_first, m_extent;
  const std::uint8_t* m_pFirst;
};

/// Samples as they are.
struct Plain {
  Bytes operator()(Bytes window) const { return window; }
};

/// 16-bit samples of so many bits, less 2^15.
class Signed {
 public:
  explicit Signed(int bits) : m_largest(Kept(kHalfWords, static_cast<std::uint16_t>(LargestSample(bits)))) {}

  Bytes operator()(Bytes window) const {
    const auto samples = hn::Min(hn::BitCast(kHalfWords, window), m_largest);
    return hn::BitCast(kBytes, hn::Xor(samples, m_middle));
  }

 private:
  hn::Vec<decltype(kHalfWords)> m_largest, m_middle = Kept(kHalfWords, 0x8000);
};

/// Means of 4 × 4 samples, in two passes that drop bits: of samples that two passes of 16 bits hold.
class ShortCubic {
 public:
  ShortCubic(int firstBits, int secondBits)
      : m_firstBits(firstBits),
        m_secondBits(secondBits),
        m_firstHalf(Kept(kInts, 1 << (firstBits - 1))),
        m_secondHalf(Kept(kInts, 1 << (secondBits - 1))) {}

  template <int kSize>
  Ints Mean(const Window<kSize>& window, const SourceRows& rows, const Weights& weights) const {
    const Shorts near = EvenPairs(weights.first, weights.second),
                 far = EvenPairs(weights.third, weights.fourth);
    const auto made = rows.Make<4>([&](const std::uint8_t* row) {
      const Bytes samples = window.Load(row);
      return hn::Add(hn::Add(SumsOfPairs(window.Pairs(samples, window.first), near), m_firstHalf),
                     SumsOfPairs(window.Pairs(samples, window.third), far));
    });
    const Ints sums =
        hn::Add(SumsOfPairs(ShiftedPairs(made[0], made[1]), OddPairs(weights.first, weights.second)),
                SumsOfPairs(ShiftedPairs(made[2], made[3]), OddPairs(weights.third, weights.fourth)));
    return hn::ShiftRightSame(hn::Add(sums, m_secondHalf), m_secondBits);
  }

 private:
  Shorts ShiftedPairs(Ints low, Ints high) const {
    return hn::OddEven(hn::BitCast(kShorts, hn::ShiftLeftSame(high, 16 - m_firstBits)),
                       hn::BitCast(kShorts, hn::ShiftRightSame(low, m_firstBits)));
  }

  int m_firstBits, m_secondBits;
  Ints m_firstHalf, m_secondHalf;
};

/// The same of 16-bit samples, which take products of 32 bits in the second pass.
class LongCubic {
 public:
  LongCubic(int bits, int firstBits, int secondBits)
      : m_signed(bits),
        m_firstBits(firstBits),
        m_secondBits(secondBits),
        m_firstHalf(Kept(kInts, (1 << (firstBits - 1)) + (1 << (15 + kWeightBits)))),
        m_secondHalf(Kept(kInts, 1 << (secondBits - 1))) {}

  Ints Mean(const Window<2>& window, const SourceRows& rows, const Weights& weights) const {
    const Shorts near = EvenPairs(weights.first, weights.second),
                 far = EvenPairs(weights.third, weights.fourth);
    const auto made = rows.Make<4>([&](const std::uint8_t* row) {
      const Bytes samples = m_signed(window.Load(row));
      const Ints sums = hn::Add(SumsOfPairs(window.Pairs(samples, window.first), near),
                                SumsOfPairs(window.Pairs(samples, window.third), far));
      return hn::ShiftRightSame(hn::Add(sums, m_firstHalf), m_firstBits);
    });
    const auto product = [](Ints row, Shorts weight) {
      return hn::Mul(row, hn::ShiftRight<16>(hn::BitCast(kInts, weight)));
    };
    const Ints sums = hn::Add(hn::Add(product(made[0], weights.first), product(made[1], weights.second)),
                              hn::Add(product(made[2], weights.third), product(made[3], weights.fourth)));
    return hn::ShiftRightSame(hn::Add(sums, m_secondHalf), m_secondBits);
  }

 private:
  Signed m_signed;
  int m_firstBits, m_secondBits;
  Ints m_firstHalf, m_secondHalf;
};

/// What a residual row is compared with.
class Expected {
 public:
  Expected(const std::int16_t* reference, const Exposure& exposure)
      : m_reference(reference),
        m_gain(Kept(kInts, exposure.gain)),
        m_offset(Kept(kInts, exposure.offset + (1 << (kExposureBits - 1)))) {}

  Ints WordsAt(std::int32_t column) const {
    constexpr hn::Rebind<std::int16_t, decltype(kInts)> kSamples;
    return Exposed(hn::PromoteTo(kInts, hn::LoadU(kSamples, m_reference + column)));
  }

  Shorts HalfWordsAt(std::int32_t column) const {
    const Ints pairs = hn::BitCast(kInts, hn::LoadU(kShorts, m_reference + column));
    return Halves<0>(Exposed(hn::ShiftRight<16>(hn::ShiftLeft<16>(pairs))),
                     Exposed(hn::ShiftRight<16>(pairs)));
  }

 private:
  Ints Exposed(Ints samples) const {
    return hn::ShiftRight<kExposureBits>(hn::Add(hn::Mul(samples, m_gain), m_offset));
  }

  const std::int16_t* m_reference;
  Ints m_gain, m_offset;
};

/// A plane of brightness that is sampled along a line.
struct Sampled {
  const std::int16_t* plane;
  std::ptrdiff_t pitch;
  const SourceLine& line;
};

/// Residuals along any line that windows hold.
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
  const ShortCubic cubic(kFirstPassBits, kSecondPassBits);
  InSteps(run, [&](std::int32_t column) {
    constexpr hn::Rebind<std::int16_t, decltype(kInts)> kOutputs;
    const Spots x = xs.At(column), y = ys.At(column);
    const SourceRows rows(bytes, source.pitch * kSize, ys, y, column, 1);
    if (rows.AreTooMany()) return asDefined({column, column + kLanes});
    const Ints samples = cubic.Mean(windows.At(x, column), rows, weights.At(phases.Of(x, y)));
    hn::StoreU(hn::DemoteTo(kOutputs, hn::Sub(samples, expected.WordsAt(column))), kOutputs, out + column);
  });
}

/// Residuals of a piece of at least a step.
class LevelResiduals {
 public:
  explicit LevelResiduals(const Sampled& source)
      : m_source(source),
        m_columns(source.line.stepX),
        m_fractions(FractionsOf<UnitColumns>(source.line.stepY)) {}

  /// Where the piece ends that begins with the run.
  std::int32_t End(ColumnRun run) const {
    return EndOfPiece(m_columns, PositionAt(run.begin), m_source.line.stepY, run);
  }

  void Make(ColumnRun piece, const Expected& expected, std::int16_t* out) const {
    const auto [x, y] = PositionAt(piece.begin);
    const std::int16_t* const row = m_source.plane + ((y >> kPositionBits) - 1) * m_source.pitch;
    const UnitColumns::Taps first(m_columns, x, 0);
    const auto across = m_cubic.AcrossAt<UnitColumns>(first);
    for (std::int32_t column = piece.begin; column < piece.end; column += kStep) {
      if (column + kStep > piece.end) column = piece.end - kStep;
      const UnitColumns::Taps taps(m_columns, x, piece.begin - column);
      const Words start = hn::Set(kWords, static_cast<std::uint32_t>(PositionAt(column).y));
      const auto down = m_cubic.DownAt(
          {PhasesOf(hn::Add(start, m_fractions[0])), PhasesOf(hn::Add(start, m_fractions[1]))});
      const Shorts samples = m_cubic.Samples<UnitColumns>(row, m_source.pitch, taps, across, down);
      hn::StoreU(hn::Sub(samples, expected.HalfWordsAt(column)), kShorts, out + column);
    }
  }

 private:
  Position PositionAt(std::int32_t column) const {
    const SourceLine& line = m_source.line;
    return {line.startX + column * line.stepX, line.startY + column * line.stepY};
  }

  const Sampled& m_source;
  UnitColumns m_columns;
  Both<Words> m_fractions;
  Cubic<SplineWeights, kFirstPassBits> m_cubic{kSecondPassBits - kWeightBits, kHalfOfSecondPass};
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

template <int kSize>
class Bicubic {
 public:
  static constexpr std::int32_t kTaps = 4, kBefore = 1;
  static constexpr WarpRows Loops::*kScalar = &Loops::warpBicubic;
  static constexpr auto kWarpBlocks = WarpBlocksBicubic;

  explicit Bicubic(int bits) : m_mean(MakeMean(bits)) {}

  Ints Sample(const Window<kSize>& window, const SourceRows& rows, Shorts phases) const {
    return m_mean.Mean(window, rows, m_weights.At(phases));
  }

 private:
  static auto MakeMean(int bits) {
    if constexpr (kSize == 1)
      return ShortCubic(FirstPassBits(8), 2 * kWeightBits - FirstPassBits(8));
    else
      return LongCubic(bits, FirstPassBits(bits), 2 * kWeightBits - FirstPassBits(bits));
  }

  SharpWeights m_weights;
  decltype(MakeMean(8)) m_mean;
};

template <int kSize>
class Bilinear {
 public:
  static constexpr std::int32_t kTaps = 2, kBefore = 0;
  static constexpr WarpRows Loops::*kScalar = &Loops::warpBilinear;
  static constexpr auto kWarpBlocks = WarpBlocksBilinear;

  explicit Bilinear(int bits) : m_signed(bits) {}

  Ints Sample(const Window<kSize>& window, const SourceRows& rows, Shorts phases) const {
    const Shorts pairs = EvenPairs(hn::Sub(m_one, phases), phases);
    const auto made = rows.Make<2>([&](const std::uint8_t* row) {
      const Bytes samples = window.Load(row);
      if constexpr (kSize == 1)
        return SumsOfPairs(window.Pairs(samples, window.first), pairs);
      else
        return hn::Add(SumsOfPairs(window.Pairs(m_signed(samples), window.first), pairs), m_middle);
    });
    const Ints down = hn::ShiftRight<16>(hn::BitCast(kInts, phases));
    const Ints sums = hn::Add(hn::ShiftLeft<8>(made[0]), hn::Mul(hn::Sub(made[1], made[0]), down));
    return hn::BitCast(kInts, hn::ShiftRight<16>(hn::BitCast(kWords, hn::Add(sums, m_half))));
  }

 private:
  Signed m_signed;
  Shorts m_one = Kept(kShorts, 256);
  Ints m_middle = Kept(kInts, 1 << (15 + 8)), m_half = Kept(kInts, 1 << 15);
};

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
  const Ints largest = Kept(kInts, LargestSample(plane.bits));
  InSteps(inside, [&](std::int32_t column) {
    const Spots x = xs.At(column), y = ys.At(column);
    const SourceRows rows(plane.samples, plane.strideBytes, ys, y, column, Of::kBefore);
    if (rows.AreTooMany()) return warpAsDefined({column, column + kLanes});
    const Ints samples = sampler.Sample(windows.At(x, column), rows, phases.Of(x, y));
    std::uint8_t* const to = out + column * std::ptrdiff_t{kSize};
    if constexpr (kSize == 1) {
      constexpr hn::Rebind<std::uint8_t, decltype(kInts)> kOutputs;
      hn::StoreU(hn::DemoteTo(kOutputs, samples), kOutputs, to);
    } else {
      constexpr hn::Rebind<std::uint16_t, decltype(kInts)> kOutputs;
      constexpr hn::Repartition<std::uint8_t, decltype(kOutputs)> kOutputBytes;
      const auto clamped = hn::DemoteTo(kOutputs, hn::Min(samples, largest));
      hn::StoreU(hn::BitCast(kOutputBytes, clamped), kOutputBytes, to);
    }
  });
}

template <template <int kSize> class Sampler>
void Warp(const AlikePlanes& planes, const WarpedRow* rows, std::int32_t count) {
  if (Sampler<1>::kWarpBlocks(planes, rows, count)) return;
  for (std::size_t i = 0; i < planes.size() && planes[i].samples != nullptr; ++i)
    for (const WarpedRow* row = rows; row != rows + count; ++row)
      if (planes[i].bits == 8)
        WarpRow<Sampler, 1>(planes[i], *row, row->out[i]);
      else
        WarpRow<Sampler, 2>(planes[i], *row, row->out[i]);
}

void WarpNearest(const AlikePlanes& planes, const WarpedRow* rows, std::int32_t count) {
  kScalarLoops.warpNearest(planes, rows, count);
}

/// Sixteen samples of a row of 8 to 16, in as many vectors as needed: the first eight and the last eight.
class CellColumns {
 public:
  static constexpr int kVectors = 16 / hn::MaxLanes(kShorts);

  explicit CellColumns(std::int32_t width) : m_last(width - 8) {
    HWY_ALIGN std::int16_t counts[16];
    for (std::int32_t i = 0; i < 16; ++i) counts[i] = i < 8 || i >= 16 - m_last ? -1 : 0;
    for (int i = 0; i < kVectors; ++i) m_counts[i] = hn::Load(kShorts, counts + 8 * i);
  }

  Shorts Load(const std::int16_t* row, int vector) const {
    return LoadBlocks(kShorts, row + vector * m_last, row + m_last);
  }

  /// What counts, for no sample counts twice.
  Shorts Counted(Shorts values, int vector) const { return hn::And(values, m_counts[vector]); }

 private:
  std::ptrdiff_t m_last;
  Shorts m_counts[kVectors];
};

struct CellVectors {
  Ints xx, xy, yy, xb, yb, x, y, bb, b, one, xr, yr, br, r;
};

Shorts WeightsOf(Shorts residuals, const RobustWeight& weight) {
  const auto limit = static_cast<std::int16_t>(weight.limit < 32767 ? weight.limit : 32767);
  const Shorts distance = hn::Abs(residuals);
  const Shorts share = hn::Mul(distance, hn::Set(kShorts, static_cast<std::int16_t>(weight.scale)));
  const Shorts root = hn::Sub(hn::Set(kShorts, 32767), hn::MulFixedPoint15(share, share));
  return hn::IfThenElseZero(hn::Lt(distance, hn::Set(kShorts, limit)), hn::MulFixedPoint15(root, root));
}

CellSums SumCellInSteps(const std::int16_t* reference, const std::int16_t* residuals, std::ptrdiff_t pitch,
                        std::int32_t width, std::int32_t height, const RobustWeight& weight) {
  if (width < 8) return kScalarLoops.sumCell(reference, residuals, pitch, width, height, weight);
  const CellColumns columns(width);
  const Ints zero = hn::Zero(kInts);
  const Shorts one = hn::Set(kShorts, 1);
  CellVectors sums = {zero, zero, zero, zero, zero, zero, zero, zero, zero, zero, zero, zero, zero, zero};
  const auto add = [](Ints& sum, Shorts a, Shorts b) { sum = hn::Add(sum, SumsOfPairs(a, b)); };
  for (std::int32_t row = 0; row < height; ++row, reference += pitch, residuals += pitch) {
    for (int i = 0; i < CellColumns::kVectors; ++i) {
      const Shorts r = columns.Load(residuals, i);
      const Shorts w = columns.Counted(WeightsOf(r, weight), i);
      const Shorts x = hn::Sub(columns.Load(reference + 1, i), columns.Load(reference - 1, i));
      const Shorts y = hn::Sub(columns.Load(reference + pitch, i), columns.Load(reference - pitch, i));
      const Shorts b = hn::Sub(columns.Load(reference, i), hn::Set(kShorts, kMiddleBrightness));
      const Shorts wx = hn::MulFixedPoint15(w, x), wy = hn::MulFixedPoint15(w, y),
                   wb = hn::MulFixedPoint15(w, b);
      add(sums.xx, wx, x);
      add(sums.xy, wx, y);
      add(sums.yy, wy, y);
      add(sums.xb, wx, b);
      add(sums.yb, wy, b);
      add(sums.x, wx, one);
      add(sums.y, wy, one);
      add(sums.bb, wb, b);
      add(sums.b, wb, one);
      add(sums.one, w, one);
      add(sums.xr, wx, r);
      add(sums.yr, wy, r);
      add(sums.br, wb, r);
      add(sums.r, hn::MulFixedPoint15(w, r), one);
    }
  }
  const auto total = [](Ints sum) { return hn::GetLane(hn::SumOfLanes(kInts, sum)); };
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
