// One source for AVX2 and NEON. Instructions that come with AVX2 on most processors are not asked for.
#define HWY_COMPILE_ONLY_STATIC
#define HWY_DISABLE_BMI2_FMA
#define HWY_DISABLE_F16C
#define HWY_DISABLE_PCLMUL_AES
#include <hwy/highway.h>
#include <limits>

#include "precise/loops.h"
#include "precise/loops_rows.h"

// What is left over at a row's end is done once more together with its neighbours, by a last step that ends
// with the run. Runs shorter than a step are left to the scalar loops.

HWY_BEFORE_NAMESPACE();
namespace precise {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

constexpr hn::ScalableTag<std::int32_t> kInts;
constexpr hn::ScalableTag<std::uint32_t> kWords;
constexpr hn::ScalableTag<std::int16_t> kShorts;
constexpr hn::ScalableTag<std::uint16_t> kHalfWords;
constexpr hn::ScalableTag<std::uint8_t> kBytes;

using Ints = hn::Vec<decltype(kInts)>;
using Words = hn::Vec<decltype(kWords)>;
using Shorts = hn::Vec<decltype(kShorts)>;
using Bytes = hn::Vec<decltype(kBytes)>;

/// Outputs of a step, in blocks of four.
constexpr std::int32_t kLanes = hn::MaxLanes(kInts), kLanesOfBlock = 4, kBlocks = kLanes / kLanesOfBlock;

/// A vector of 16 bytes from each place, or from the first where a vector has no more.
template <class Tag, class Lane>
hn::Vec<Tag> LoadBlocks(Tag tag, const Lane* first, const Lane* second) {
  constexpr hn::FixedTag<Lane, 16 / sizeof(Lane)> kBlock;
  if constexpr (hn::MaxLanes(tag) == hn::MaxLanes(kBlock))
    return hn::LoadU(tag, first);
  else
    return hn::Combine(tag, hn::LoadU(kBlock, second), hn::LoadU(kBlock, first));
}

/// Sums of products of neighbours.
Ints SumsOfPairs(Shorts a, Shorts b) {
  Ints odd = hn::Zero(kInts);
  const Ints even = hn::ReorderWidenMulAccumulate(kInts, a, b, hn::Zero(kInts), odd);
  return hn::RearrangeToOddPlusEven(even, odd);
}

/// The low halves of both, those of `high` above those of `low`.
Shorts PairsOf(Ints low, Ints high) {
  return hn::OddEven(hn::BitCast(kShorts, hn::ShiftLeft<16>(high)), hn::BitCast(kShorts, low));
}
Shorts EvenPairs(Shorts low, Shorts high) {
  return PairsOf(hn::BitCast(kInts, low), hn::BitCast(kInts, high));
}
Shorts OddPairs(Shorts low, Shorts high) {
  return hn::OddEven(high, hn::BitCast(kShorts, hn::ShiftRight<16>(hn::BitCast(kWords, low))));
}

/// `work(column)` for steps that cover the run.
template <class Work>
void InSteps(ColumnRun run, Work work) {
  for (std::int32_t column = run.begin; column < run.end; column += kLanes)
    work(column + kLanes <= run.end ? column : run.end - kLanes);
}

/// Where a step's lanes stand on one axis: whole samples beyond the first lane's, and what is left over, in
/// 2^32 of a sample with the highest bit inverted.
struct Spots {
  std::int64_t whole;
  Ints wholes;
  Ints fractions;
};

/// One axis of a source line.
class Axis {
 public:
  Axis(std::int64_t start, std::int64_t step) : m_start(start), m_step(step) {
    HWY_ALIGN std::int32_t lows[kLanes], highs[kLanes];
    for (std::int32_t i = 0; i < kLanes; ++i) {
      lows[i] = static_cast<std::int32_t>(static_cast<std::uint32_t>(i * step));
      highs[i] = static_cast<std::int32_t>((i * step) >> kPositionBits);
    }
    m_lows = hn::Load(kInts, lows);
    m_highs = hn::Load(kInts, highs);
    m_flippedLows = hn::Xor(m_lows, hn::Set(kInts, kFlip));
  }

  std::int64_t WholeAt(std::int32_t column) const { return (m_start + column * m_step) >> kPositionBits; }

  Spots At(std::int32_t column) const {
    const std::int64_t position = m_start + column * m_step;
    const auto fraction = static_cast<std::int32_t>(static_cast<std::uint32_t>(position));
    const Ints fractions = hn::Add(m_lows, hn::Set(kInts, fraction ^ kFlip));
    const Ints carries = hn::VecFromMask(kInts, hn::Lt(fractions, m_flippedLows));
    return {position >> kPositionBits, hn::Sub(m_highs, carries), fractions};
  }

 private:
  static constexpr std::int32_t kFlip = std::numeric_limits<std::int32_t>::min();
  std::int64_t m_start, m_step;
  Ints m_lows, m_highs, m_flippedLows;
};

/// The phases in 256 of a sample: of x in the low halves, of y in the high ones.
Shorts PhasesOf(const Spots& x, const Spots& y) {
  const Words across = hn::ShiftRight<24>(hn::BitCast(kWords, x.fractions));
  const Words down = hn::ShiftRight<8>(hn::BitCast(kWords, y.fractions));
  return hn::Xor(hn::OddEven(hn::BitCast(kShorts, down), hn::BitCast(kShorts, across)),
                 hn::Set(kShorts, 0x80));
}

/// Weights of four neighbours.
struct Weights {
  Shorts first, second, third, fourth;
};

Shorts LessTheOthers(Shorts first, Shorts third, Shorts fourth) {
  return hn::Sub(hn::Sub(hn::Set(kShorts, 1 << kWeightBits), first), hn::Add(third, fourth));
}

/// Keys' weights with a = -3/4: the far ones are -3·t·(1 - t)² / 4 and -3·t²·(1 - t) / 4, the third is
/// t + t·(1 - t)·(5·t - 1) / 4. Rounding halves does not matter: there are none.
Weights KeysWeights(Shorts t) {
  const auto times = [t](std::int16_t factor) { return hn::Mul(t, hn::Set(kShorts, factor)); };
  const Shorts product = hn::Mul(t, hn::Sub(hn::Set(kShorts, 256), t));
  const Shorts first = hn::MulFixedPoint15(product, hn::Sub(times(24), hn::Set(kShorts, 24 * 256)));
  const Shorts fourth = hn::MulFixedPoint15(product, times(-24));
  const Shorts third = hn::Add(hn::ShiftLeft<6>(t),
                               hn::MulFixedPoint15(product, hn::Sub(times(40), hn::Set(kShorts, 8 * 256))));
  return {first, LessTheOthers(first, third, fourth), third, fourth};
}

/// The cubic B-spline's weights (1 - t)³ / 6, (1 + 3·t·(1 + t) - 3·t³) / 6 and t³ / 6. Their triples are made
/// in 1/8192, rounded as the last step needs it: numbers n of 1/16384 by (n + 3/2) / 3, rounded down.
Weights SplineWeights(Shorts phases) {
  const auto t = hn::BitCast(kHalfWords, phases);
  const auto number = [](std::uint16_t value) { return hn::Set(kHalfWords, value); };
  const auto square = hn::Mul(t, t), t64 = hn::ShiftLeft<6>(t), t96 = hn::Add(t64, hn::ShiftLeft<5>(t));
  // square · factor / 2^17, where factors count 64, and 3/2 more.
  const auto cubic = [&](auto factor) {
    return hn::ShiftRight<1>(hn::Add(hn::MulHigh(square, factor), number(3)));
  };
  const auto third = [&](auto triple) {
    return hn::BitCast(kShorts, hn::ShiftRight<1>(hn::MulHigh(triple, number(43691))));
  };
  const Shorts first = third(hn::Add(hn::Sub(number(8192), t96), cubic(hn::Sub(number(64 * 768), t64))));
  const Shorts near =
      third(hn::Add(hn::Add(number(8192), t96), cubic(hn::Sub(number(192 * 256), hn::Add(t96, t96)))));
  const Shorts fourth = third(cubic(t64));
  return {first, LessTheOthers(first, near, fourth), near, fourth};
}

/// Sixteen bytes of a source row for each block of lanes, and which of them the lanes take: their first two
/// samples as 16-bit pairs. `kSize` is that of a sample.
template <int kSize>
class Windows {
 public:
  static constexpr std::int32_t kSamples = 16 / kSize;
  static constexpr bool kIsShared = kSize == 1;  ///< by all blocks

  /// What steps must keep to so that a window holds `taps` samples for each lane.
  static bool Hold(const SourceLine& line, std::int32_t width, std::int32_t taps) {
    constexpr std::int32_t kSteps = (kIsShared ? kLanes : kLanesOfBlock) - 1;
    return width >= kSamples && line.stepX >= 0 &&
           kSteps * line.stepX <= std::int64_t{kSamples - taps} << kPositionBits;
  }

  Windows(const Axis& axis, const Spots& spots, std::int32_t column, std::int32_t width,
          std::int32_t before) {
    Ints samples = spots.wholes;
    if constexpr (!kIsShared) samples = hn::Sub(samples, hn::Broadcast<0>(samples));
    HWY_ALIGN std::int32_t moved[kLanes];
    bool isMoved = false;
    for (std::int32_t block = 0; block < (kIsShared ? 1 : kBlocks); ++block) {
      const std::int64_t wanted =
          (block == 0 ? spots.whole : axis.WholeAt(column + block * kLanesOfBlock)) - before;
      const std::int64_t possible = wanted + kSamples <= width ? wanted : width - kSamples;
      m_offsets[block] = possible * kSize;
      isMoved |= wanted != possible;
      for (std::int32_t i = 0; i < (kIsShared ? kLanes : kLanesOfBlock); ++i)
        moved[block * kLanesOfBlock + i] = static_cast<std::int32_t>(wanted - possible);
    }
    if (isMoved) samples = hn::Add(samples, hn::Load(kInts, moved));
    if constexpr (kSize == 1)  // a byte from beyond the window is 0
      m_firstPairs = hn::Add(hn::Or(samples, hn::ShiftLeft<16>(samples)), hn::Set(kInts, -0x7FFE8000));
    else
      m_firstPairs = hn::Add(hn::Mul(samples, hn::Set(kInts, 0x02020202)), hn::Set(kInts, 0x03020100));
  }

  Bytes Load(const std::uint8_t* row) const {
    if constexpr (kIsShared)
      return hn::LoadDup128(kBytes, row + m_offsets[0]);
    else
      return LoadBlocks(kBytes, row + m_offsets[0], row + m_offsets[kBlocks - 1]);
  }

  /// The pairs that begin `kSkip` samples ahead.
  template <int kSkip>
  Shorts Pairs(Bytes window) const {
    constexpr std::int32_t kAhead = kSize == 1 ? kSkip * 0x00010001 : kSkip * 0x02020202;
    const Bytes order = hn::BitCast(kBytes, hn::Add(m_firstPairs, hn::Set(kInts, kAhead)));
    return hn::BitCast(kShorts, hn::TableLookupBytesOr0(window, order));
  }

 private:
  std::ptrdiff_t m_offsets[kBlocks];
  Ints m_firstPairs;
};

/// Source rows of a step. Lanes read from one row, or from two neighbours.
class SourceRows {
 public:
  SourceRows(const std::uint8_t* plane, std::ptrdiff_t strideBytes, const Axis& axis, const Spots& spots,
             std::int32_t column, std::int32_t before)
      : m_strideBytes(strideBytes), m_wholes(spots.wholes) {
    const std::int64_t last = axis.WholeAt(column + kLanes - 1);
    const std::int64_t first = spots.whole < last ? spots.whole : last;
    m_extent = spots.whole + last - 2 * first;
    m_firstOfLanes = static_cast<std::int32_t>(first - spots.whole);
    m_pFirst = plane + (first - before) * strideBytes;
  }

  bool AreTooMany() const { return m_extent > 1; }

  /// What `across` makes of each of `kRows` rows that each lane reads.
  template <std::size_t kRows, class Across>
  std::array<Ints, kRows> Make(Across across) const {
    std::array<Ints, kRows> made;
    for (std::size_t row = 0; row < kRows; ++row)
      made[row] = across(m_pFirst + static_cast<std::ptrdiff_t>(row) * m_strideBytes);
    if (m_extent == 0) return made;
    const auto isBelow = hn::Gt(m_wholes, hn::Set(kInts, m_firstOfLanes));
    for (std::size_t row = 0; row + 1 < kRows; ++row)
      made[row] = hn::IfThenElse(isBelow, made[row + 1], made[row]);
    const Ints last = across(m_pFirst + static_cast<std::ptrdiff_t>(kRows) * m_strideBytes);
    made[kRows - 1] = hn::IfThenElse(isBelow, last, made[kRows - 1]);
    return made;
  }

 private:
  std::ptrdiff_t m_strideBytes;
  Ints m_wholes;
  std::int64_t m_extent;
  std::int32_t m_firstOfLanes;
  const std::uint8_t* m_pFirst;
};

/// Sums of four neighbours across, of signed samples.
template <int kSize, class Signed>
std::array<Ints, 4> CubicRows(const Windows<kSize>& windows, const SourceRows& rows, const Weights& weights,
                              int bits, std::int32_t added, Signed toSigned) {
  const Shorts near = EvenPairs(weights.first, weights.second),
               far = EvenPairs(weights.third, weights.fourth);
  const Ints rounding = hn::Set(kInts, added + (1 << (bits - 1)));
  return rows.Make<4>([&](const std::uint8_t* row) {
    const Bytes window = toSigned(windows.Load(row));
    const Ints sums = hn::Add(SumsOfPairs(windows.template Pairs<0>(window), near),
                              SumsOfPairs(windows.template Pairs<2>(window), far));
    return hn::ShiftRightSame(hn::Add(sums, rounding), bits);
  });
}

/// Sums of four rows that 16 bits hold.
Ints ShortColumns(const std::array<Ints, 4>& rows, const Weights& weights, int bits) {
  const Ints sums = hn::Add(SumsOfPairs(PairsOf(rows[0], rows[1]), OddPairs(weights.first, weights.second)),
                            SumsOfPairs(PairsOf(rows[2], rows[3]), OddPairs(weights.third, weights.fourth)));
  return hn::ShiftRightSame(hn::Add(sums, hn::Set(kInts, 1 << (bits - 1))), bits);
}

Ints LongColumns(const std::array<Ints, 4>& rows, const Weights& weights, int bits) {
  const auto product = [](Ints row, Shorts weight) {
    return hn::Mul(row, hn::ShiftRight<16>(hn::BitCast(kInts, weight)));
  };
  const Ints sums = hn::Add(hn::Add(product(rows[0], weights.first), product(rows[1], weights.second)),
                            hn::Add(product(rows[2], weights.third), product(rows[3], weights.fourth)));
  return hn::ShiftRightSame(hn::Add(sums, hn::Set(kInts, 1 << (bits - 1))), bits);
}

Bytes AsTheyAre(Bytes window) { return window; }

/// 16-bit samples, less 2^15.
class ToSigned {
 public:
  explicit ToSigned(int bits)
      : m_largest(hn::Set(kHalfWords, static_cast<std::uint16_t>(LargestSample(bits)))) {}
  Bytes operator()(Bytes window) const {
    const auto samples = hn::Min(hn::BitCast(kHalfWords, window), m_largest);
    return hn::BitCast(kBytes, hn::Xor(samples, hn::Set(kHalfWords, 0x8000)));
  }

 private:
  hn::Vec<decltype(kHalfWords)> m_largest;
};

void ResidualRowInSteps(const std::int16_t* plane, std::ptrdiff_t pitch, const SourceLine& line,
                        ColumnRun run, const std::int16_t* reference, const Exposure& exposure,
                        std::int16_t* out) {
  constexpr hn::Rebind<std::int16_t, decltype(kInts)> kOutputs;
  constexpr int kSize = sizeof(std::int16_t);
  const auto width = static_cast<std::int32_t>(pitch);
  if (run.end - run.begin < kLanes || !Windows<kSize>::Hold(line, width, 4))
    return kScalarLoops.residualRow(plane, pitch, line, run, reference, exposure, out);
  const auto* const bytes = reinterpret_cast<const std::uint8_t*>(plane);
  const Axis xs(line.startX, line.stepX), ys(line.startY, line.stepY);
  const Ints gain = hn::Set(kInts, exposure.gain),
             offset = hn::Set(kInts, exposure.offset + (1 << (kExposureBits - 1)));
  InSteps(run, [&](std::int32_t column) {
    const Spots x = xs.At(column), y = ys.At(column);
    const SourceRows rows(bytes, pitch * kSize, ys, y, column, 1);
    if (rows.AreTooMany())
      return kScalarLoops.residualRow(plane, pitch, line, {column, column + kLanes}, reference, exposure,
                                      out);
    const Windows<kSize> windows(xs, x, column, width, 1);
    const Weights weights = SplineWeights(PhasesOf(x, y));
    const Ints samples = ShortColumns(CubicRows(windows, rows, weights, kFirstPassBits, 0, AsTheyAre),
                                      weights, kSecondPassBits);
    const Ints unexposed = hn::PromoteTo(kInts, hn::LoadU(kOutputs, reference + column));
    const Ints expected = hn::ShiftRight<kExposureBits>(hn::Add(hn::Mul(unexposed, gain), offset));
    hn::StoreU(hn::DemoteTo(kOutputs, hn::Sub(samples, expected)), kOutputs, out + column);
  });
}

/// Stores a step's samples, at most `largest`.
template <int kSize>
void Store(Ints samples, std::int32_t largest, std::uint8_t* out) {
  if constexpr (kSize == 1) {
    constexpr hn::Rebind<std::uint8_t, decltype(kInts)> kOutputs;
    hn::StoreU(hn::DemoteTo(kOutputs, samples), kOutputs, out);
  } else {
    constexpr hn::Rebind<std::uint16_t, decltype(kInts)> kOutputs;
    constexpr hn::Repartition<std::uint8_t, decltype(kOutputs)> kOutputBytes;
    const auto clamped = hn::DemoteTo(kOutputs, hn::Min(samples, hn::Set(kInts, largest)));
    hn::StoreU(hn::BitCast(kOutputBytes, clamped), kOutputBytes, out);
  }
}

struct Bicubic {
  static constexpr std::int32_t kTaps = 4, kBefore = 1;
  static void WarpScalar(const SourcePlane& plane, const SourceLine& line, ColumnRun run, std::uint8_t* out) {
    kScalarLoops.warpBicubic(plane, line, run, out);
  }

  template <int kSize>
  static Ints Sample(const Windows<kSize>& windows, const SourceRows& rows, Shorts phases, int bits) {
    const Weights weights = KeysWeights(phases);
    if constexpr (kSize == 1) {
      return ShortColumns(CubicRows(windows, rows, weights, 8, 0, AsTheyAre), weights, 2 * kWeightBits - 8);
    } else {
      const int first = FirstPassBits(bits);
      const auto sums = CubicRows(windows, rows, weights, first, 1 << (15 + kWeightBits), ToSigned(bits));
      return LongColumns(sums, weights, 2 * kWeightBits - first);
    }
  }
};

struct Bilinear {
  static constexpr std::int32_t kTaps = 2, kBefore = 0;
  static void WarpScalar(const SourcePlane& plane, const SourceLine& line, ColumnRun run, std::uint8_t* out) {
    kScalarLoops.warpBilinear(plane, line, run, out);
  }

  template <int kSize>
  static Ints Sample(const Windows<kSize>& windows, const SourceRows& rows, Shorts phases, int bits) {
    const Shorts pairs = EvenPairs(hn::Sub(hn::Set(kShorts, 256), phases), phases);
    const auto made = rows.Make<2>([&](const std::uint8_t* row) {
      if constexpr (kSize == 1)
        return SumsOfPairs(windows.template Pairs<0>(windows.Load(row)), pairs);
      else
        return hn::Add(SumsOfPairs(windows.template Pairs<0>(ToSigned(bits)(windows.Load(row))), pairs),
                       hn::Set(kInts, 1 << (15 + 8)));
    });
    const Ints down = hn::ShiftRight<16>(hn::BitCast(kInts, phases));
    const Ints sums = hn::Add(hn::ShiftLeft<8>(made[0]), hn::Mul(hn::Sub(made[1], made[0]), down));
    const Ints rounded = hn::Add(sums, hn::Set(kInts, 1 << 15));
    return hn::BitCast(kInts, hn::ShiftRight<16>(hn::BitCast(kWords, rounded)));
  }
};

template <class Sampler, int kSize>
void WarpOf(const SourcePlane& plane, const SourceLine& line, ColumnRun run, std::uint8_t* out) {
  if (run.end - run.begin < kLanes || !Windows<kSize>::Hold(line, plane.width, Sampler::kTaps))
    return Sampler::WarpScalar(plane, line, run, out);
  // Positions are rounded to 1/256.
  constexpr std::int64_t kHalfPhase = std::int64_t{1} << (kPositionBits - 9);
  const Axis xs(line.startX + kHalfPhase, line.stepX), ys(line.startY + kHalfPhase, line.stepY);
  const int bits = plane.bits;
  InSteps(run, [&](std::int32_t column) {
    const Spots x = xs.At(column), y = ys.At(column);
    const SourceRows rows(plane.samples, plane.strideBytes, ys, y, column, Sampler::kBefore);
    if (rows.AreTooMany()) return Sampler::WarpScalar(plane, line, {column, column + kLanes}, out);
    const Windows<kSize> windows(xs, x, column, plane.width, Sampler::kBefore);
    Store<kSize>(Sampler::template Sample<kSize>(windows, rows, PhasesOf(x, y), bits), LargestSample(bits),
                 out + column * std::ptrdiff_t{kSize});
  });
}

template <class Sampler>
void Warp(const SourcePlane& plane, const SourceLine& line, ColumnRun run, std::uint8_t* out) {
  if (plane.bits == 8)
    WarpOf<Sampler, 1>(plane, line, run, out);
  else
    WarpOf<Sampler, 2>(plane, line, run, out);
}

void WarpNearest(const SourcePlane& plane, const SourceLine& line, ColumnRun run, std::uint8_t* out) {
  kScalarLoops.warpNearest(plane, line, run, out);
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

const Loops kVectorLoops = {HWY_TARGET == HWY_NEON ? "neon" : "avx2",
                            AverageBlocks,
                            SmoothRow,
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
HWY_AFTER_NAMESPACE();
