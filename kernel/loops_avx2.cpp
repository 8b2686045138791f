#include <cstring>
#include <immintrin.h>

#include "kernel/frame.h"
#include "kernel/loops.h"

// Only the insides of rows stand here. What is left over at a row's end is done once more together with its
// neighbours where a loop may write the same result twice, and by the scalar loops where a row is short.

namespace {

constexpr int kWeightBits = 9;
constexpr int kNearestShift = (1 << kWeightBits) - 255;

__m128i Load16(const void* from) { return _mm_loadu_si128(static_cast<const __m128i*>(from)); }
__m256i Load32(const void* from) { return _mm256_loadu_si256(static_cast<const __m256i*>(from)); }
void Store16(void* to, __m128i bytes) { _mm_storeu_si128(static_cast<__m128i*>(to), bytes); }
void Store32(void* to, __m256i bytes) { _mm256_storeu_si256(static_cast<__m256i*>(to), bytes); }

/// 16 bytes from each place, in the lower and the upper half.
__m256i LoadHalves(const void* lower, const void* upper) {
  return _mm256_inserti128_si256(_mm256_castsi128_si256(Load16(lower)), Load16(upper), 1);
}

void StreamBytes(const std::uint8_t* from, std::uint8_t* to, std::ptrdiff_t count) {
  constexpr std::ptrdiff_t kLine = 64;
  if (count < 2 * kLine) return kScalarOps.copyBytes(from, to, count);
  // Stores past the cache need aligned places; the first and the last line may overlap them.
  const std::ptrdiff_t head =
      kLine - static_cast<std::ptrdiff_t>(reinterpret_cast<std::uintptr_t>(to) % kLine);
  const std::ptrdiff_t tail = (count - head) % kLine;
  kScalarOps.copyBytes(from, to, head);
  for (std::ptrdiff_t i = head; i < count - tail; i += kLine) {
    const __m256i low = Load32(from + i), high = Load32(from + i + 32);
    _mm256_stream_si256(reinterpret_cast<__m256i*>(to + i), low);
    _mm256_stream_si256(reinterpret_cast<__m256i*>(to + i + 32), high);
  }
  kScalarOps.copyBytes(from + count - tail, to + count - tail, tail);
  _mm_sfence();
}

/// Grey values of four pixels a half from bytes that start at the pixels, one half later for the last.
__m256i GreyPairs(__m256i pixels, __m256i order) {
  const __m256i weights = _mm256_set1_epi32(0x00020101);
  return _mm256_maddubs_epi16(_mm256_shuffle_epi8(pixels, order), weights);
}

void GreyRow(const std::uint8_t* pixels, std::int16_t* grey, std::int32_t count) {
  constexpr std::int32_t kStep = 16;
  if (count < kStep) return kScalarOps.greyRow(pixels, grey, count);
  const __m128i order = _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1);
  // The last load ends with the pixels and so begins 4 bytes before them.
  const __m128i late = _mm_setr_epi8(4, 5, 6, -1, 7, 8, 9, -1, 10, 11, 12, -1, 13, 14, 15, -1);
  const __m256i order0 = _mm256_broadcastsi128_si256(order), order1 = _mm256_setr_m128i(order, late);
  for (std::int32_t begin = 0; begin < count; begin += kStep) {
    const std::int32_t i = begin + kStep <= count ? begin : count - kStep;
    const std::uint8_t* const from = pixels + std::ptrdiff_t{i} * kBytesPerPixel;
    const __m256i even = GreyPairs(LoadHalves(from, from + 24), order0);
    const __m256i odd = GreyPairs(LoadHalves(from + 12, from + 32), order1);
    Store32(grey + i, _mm256_hadd_epi16(even, odd));
  }
}

__m256i Madd(__m256i samples, int even, int odd) {
  return _mm256_madd_epi16(samples, _mm256_set1_epi32(odd * 65536 + even));
}

/// Eight outputs from sample pairs (-2, -1), (0, 1) and (1, 2): what falls to the second of the middle ones
/// has no weight there.
__m256i ReduceEight(const FiveRows& rows, std::ptrdiff_t at) {
  const auto sumOf = [&](std::size_t a, std::size_t b, std::ptrdiff_t offset) {
    return _mm256_add_epi16(Load32(rows[a] + at + offset), Load32(rows[b] + at + offset));
  };
  __m256i sum = Madd(Load32(rows[2] + at - 2), 20, 102);
  sum = _mm256_add_epi32(sum, Madd(Load32(rows[2] + at), 164, 0));
  sum = _mm256_add_epi32(sum, Madd(Load32(rows[2] + at + 1), 102, 20));
  sum = _mm256_add_epi32(sum, Madd(sumOf(1, 3, -2), 13, 64));
  sum = _mm256_add_epi32(sum, Madd(sumOf(1, 3, 0), 102, 0));
  sum = _mm256_add_epi32(sum, Madd(sumOf(1, 3, 1), 64, 13));
  sum = _mm256_add_epi32(sum, Madd(sumOf(0, 4, -2), 3, 13));
  sum = _mm256_add_epi32(sum, Madd(sumOf(0, 4, 0), 20, 0));
  sum = _mm256_add_epi32(sum, Madd(sumOf(0, 4, 1), 13, 3));
  return _mm256_srai_epi32(sum, 10);
}

void ReduceRow(const FiveRows& rows, std::int16_t* out, std::int32_t count) {
  constexpr std::int32_t kStep = 16;
  if (count < kStep) return kScalarOps.reduceRow(rows, out, count);
  for (std::int32_t begin = 0; begin < count; begin += kStep) {
    const std::int32_t i = begin + kStep <= count ? begin : count - kStep;
    const __m256i both = _mm256_packs_epi32(ReduceEight(rows, 2 * std::ptrdiff_t{i}),
                                            ReduceEight(rows, 2 * std::ptrdiff_t{i} + 16));
    Store32(out + i, _mm256_permute4x64_epi64(both, 0xD8));
  }
}

std::int64_t Total(__m256i sums) {
  const __m256i wide = _mm256_add_epi64(_mm256_cvtepi32_epi64(_mm256_castsi256_si128(sums)),
                                        _mm256_cvtepi32_epi64(_mm256_extracti128_si256(sums, 1)));
  const __m128i pair = _mm_add_epi64(_mm256_castsi256_si128(wide), _mm256_extracti128_si256(wide, 1));
  return _mm_cvtsi128_si64(pair) + _mm_extract_epi64(pair, 1);
}

void AddProducts(__m256i& sums, __m256i a, __m256i b) {
  sums = _mm256_add_epi32(sums, _mm256_madd_epi16(a, b));
}

/// All ones in the last `count` of 16 lanes.
__m256i LastLanes(std::int32_t count) {
  static constexpr std::int16_t kMasks[32] = {0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,
                                              -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1};
  return Load32(kMasks + count);
}

struct Gradients {
  __m256i x, y, t;

  void Keep(__m256i lanes) {
    x = _mm256_and_si256(x, lanes);
    y = _mm256_and_si256(y, lanes);
  }
};

Gradients GradientsAt(const std::int16_t* previous, const ThreeRows& current, std::int32_t i) {
  return {_mm256_sub_epi16(Load32(current[1] + i - 1), Load32(current[1] + i + 1)),
          _mm256_sub_epi16(Load32(current[0] + i), Load32(current[2] + i)),
          _mm256_sub_epi16(Load32(previous + i), Load32(current[1] + i))};
}

struct RotationGradients {
  Gradients shift;
  __m256i r;

  void Keep(__m256i lanes) {
    shift.Keep(lanes);
    r = _mm256_and_si256(r, lanes);
  }
};

struct TranslationLanes {
  __m256i xx, xy, yy, xt, yt;

  void Add(const Gradients& g) {
    AddProducts(xx, g.x, g.x);
    AddProducts(xy, g.x, g.y);
    AddProducts(yy, g.y, g.y);
    AddProducts(xt, g.x, g.t);
    AddProducts(yt, g.y, g.t);
  }

  void AddTo(TranslationSums& sums) const {
    sums.xx += Total(xx);
    sums.xy += Total(xy);
    sums.yy += Total(yy);
    sums.xt += Total(xt);
    sums.yt += Total(yt);
  }
};

struct RotationLanes {
  TranslationLanes shift;
  __m256i rr, rx, ry, rt;

  void Add(const RotationGradients& g) {
    shift.Add(g.shift);
    AddProducts(rr, g.r, g.r);
    AddProducts(rx, g.r, g.shift.x);
    AddProducts(ry, g.r, g.shift.y);
    AddProducts(rt, g.r, g.shift.t);
  }

  void AddTo(RotationSums& sums) const {
    sums.rr += Total(rr);
    sums.rx += Total(rx);
    sums.ry += Total(ry);
    sums.xx += Total(shift.xx);
    sums.xy += Total(shift.xy);
    sums.yy += Total(shift.yy);
    sums.rt += Total(rt);
    sums.xt += Total(shift.xt);
    sums.yt += Total(shift.yt);
  }
};

constexpr std::int32_t kSumStep = 16;
// Lanes of 32 bits hold 2064 products of two differences, and each step adds two of them.
constexpr std::int32_t kMaxSumCount = 2064 / 2 * kSumStep;
static_assert(std::int64_t{1020} * 1020 * 2064 < std::int64_t{1} << 31);

/// Sums products of what `gradientsAt(i)` gives for samples i … i + 15, over all of `count` samples.
template <class Lanes, class GradientSource, class Sums>
void SumRow(std::int32_t count, Sums& sums, const GradientSource& gradientsAt) {
  for (std::int32_t begin = 0; begin < count; begin += kMaxSumCount) {
    const std::int32_t end = count - begin < kMaxSumCount ? count : begin + kMaxSumCount;
    Lanes lanes = {};
    std::int32_t i = begin;
    for (; i + kSumStep <= end; i += kSumStep) lanes.Add(gradientsAt(i));
    if (i < end) {
      auto rest = gradientsAt(end - kSumStep);
      rest.Keep(LastLanes(end - i));
      lanes.Add(rest);
    }
    lanes.AddTo(sums);
  }
}

void AddTranslationRow(const std::int16_t* previous, const ThreeRows& current, std::int32_t count,
                       TranslationSums& sums) {
  if (count < kSumStep) return kScalarOps.addTranslationRow(previous, current, count, sums);
  SumRow<TranslationLanes>(count, sums, [&](std::int32_t i) { return GradientsAt(previous, current, i); });
}

void AddRotationRow(const std::int16_t* previous, const RotatedRow& current, std::int32_t count,
                    RotationSums& sums) {
  if (count < kSumStep) return kScalarOps.addRotationRow(previous, current, count, sums);
  SumRow<RotationLanes>(count, sums, [&](std::int32_t i) {
    return RotationGradients{
        GradientsAt(previous, current.samples, i),
        _mm256_sub_epi16(Load32(current.turnedLess + i), Load32(current.turnedMore + i))};
  });
}

/// A source position at one column of a line.
struct Position {
  std::int64_t x, y;

  Position(const SourceLine& line, std::int32_t column)
      : x(line.startX + column * line.stepX), y(line.startY + column * line.stepY) {}
};

/// The columns at which a position's whole part becomes another one. Each is found one ahead: the division's
/// time passes beside the work on the columns before.
class WholeChanges {
 public:
  WholeChanges(std::int64_t start, std::int64_t step, int fractionBits, std::int32_t firstColumn)
      : m_start(start), m_step(step), m_last((std::int64_t{1} << fractionBits) - 1), m_next(firstColumn) {
    m_next = After(m_next);
    m_following = After(m_next);
  }

  std::int64_t Next() const { return m_next; }
  void Advance() {
    m_next = m_following;
    m_following = After(m_next);
  }

 private:
  std::int64_t After(std::int64_t column) const {
    const std::int64_t fraction = (m_start + column * m_step) & m_last;
    if (m_step > 0) return column + (m_last - fraction) / m_step + 1;
    return m_step < 0 ? column + fraction / -m_step + 1 : kNever;
  }

  static constexpr std::int64_t kNever = std::int64_t{1} << 31;

  std::int64_t m_start, m_step, m_last, m_next, m_following = 0;
};

/// Cuts a run into pieces that read side by side in one row, and calls `samplePiece(piece, at, lastStep)` for
/// each: steps may begin at columns up to `lastStep`. They may read on past the piece's end and write there
/// what the next piece mends. A camera turns by little, so most pieces are long.
template <class SamplePiece>
void ForStraightPieces(const SourceLine& line, ColumnRun run, std::int32_t step,
                       const SamplePiece& samplePiece) {
  if (run.begin >= run.end) return;
  const std::int64_t one = std::int64_t{1} << line.fractionBits;
  const auto sampleAt = [&](std::int32_t column) { return Position(line, column).x >> line.fractionBits; };
  // Source columns advance by one or less: reading on must end with what the run's last column reads.
  const std::int64_t lag = sampleAt(run.begin) - run.begin - (sampleAt(run.end - 1) - (run.end - 1));
  const std::int64_t lastOverrun = run.end - step - lag;
  WholeChanges alongRow(line.startX, line.stepX - one, line.fractionBits, run.begin);
  WholeChanges ofRow(line.startY, line.stepY, line.fractionBits, run.begin);
  while (run.begin < run.end) {
    if (alongRow.Next() == run.begin) alongRow.Advance();
    if (ofRow.Next() == run.begin) ofRow.Advance();
    const std::int64_t end = alongRow.Next() < ofRow.Next() ? alongRow.Next() : ofRow.Next();
    const ColumnRun piece = {run.begin, end < run.end ? static_cast<std::int32_t>(end) : run.end};
    const std::int64_t lastWhole = piece.end - step;
    samplePiece(piece, Position(line, piece.begin), lastWhole < lastOverrun ? lastOverrun : lastWhole);
    run.begin = piece.end;
  }
}

/// Fractions of eight columns' source positions, as 32-bit numbers that wrap around at one.
struct Fractions {
  __m256i x, y;

  Fractions operator+(const Fractions& other) const {
    return {_mm256_add_epi32(x, other.x), _mm256_add_epi32(y, other.y)};
  }
  __m256i WeightsX() const { return _mm256_srli_epi32(x, 32 - kWeightBits); }
  __m256i WeightsY() const { return _mm256_srli_epi32(y, 32 - kWeightBits); }
};

/// A line of at most 32 fraction bits.
class FractionLine {
 public:
  explicit FractionLine(const SourceLine& line) : m_line(line) {}

  /// Of a position, in all lanes.
  Fractions At(const Position& at) const { return {Spread(at.x), Spread(at.y)}; }

  /// From a position to those this many columns further.
  Fractions Over(__m256i columns) const {
    return {_mm256_mullo_epi32(columns, Spread(m_line.stepX)),
            _mm256_mullo_epi32(columns, Spread(m_line.stepY))};
  }

 private:
  __m256i Spread(std::int64_t value) const {
    const std::uint64_t wrapped = static_cast<std::uint64_t>(value) << (32 - m_line.fractionBits);
    return _mm256_set1_epi32(static_cast<int>(static_cast<std::uint32_t>(wrapped)));
  }

  const SourceLine& m_line;
};

/// Each lane's weights of a near and a far neighbour, side by side.
__m256i WeightPairs(__m256i far) {
  const __m256i near = _mm256_sub_epi32(_mm256_set1_epi32(1 << kWeightBits), far);
  return _mm256_or_si256(near, _mm256_slli_epi32(far, 16));
}

/// Weighted means of eight pairs of neighbours in one row and in the next.
__m256i Bilinear(__m256i nearPairs, __m256i farPairs, __m256i weightPairsX, __m256i weightsY) {
  const __m256i near = _mm256_madd_epi16(nearPairs, weightPairsX);
  const __m256i far = _mm256_madd_epi16(farPairs, weightPairsX);
  const __m256i change = _mm256_mullo_epi32(_mm256_sub_epi32(far, near), weightsY);
  return _mm256_srli_epi32(_mm256_add_epi32(change, _mm256_slli_epi32(near, kWeightBits)), 2 * kWeightBits);
}

/// Makes 16 columns of a plane at a time. Unpacking and packing work on halves of a vector, so that the
/// columns between them stand in an order of their own.
class PlaneSampler {
 public:
  static constexpr std::int32_t kStep = 16;

  PlaneSampler(const std::int16_t* plane, std::ptrdiff_t pitch, const SourceLine& line, std::int16_t* out)
      : m_plane(plane),
        m_pitch(pitch),
        m_line(line),
        m_out(out),
        m_fractions(line),
        m_low(m_fractions.Over(_mm256_setr_epi32(0, 1, 2, 3, 8, 9, 10, 11))),
        m_high(m_fractions.Over(_mm256_setr_epi32(4, 5, 6, 7, 12, 13, 14, 15))),
        m_advance(m_fractions.Over(_mm256_set1_epi32(kStep))) {}

  void Sample(ColumnRun piece, const Position& at, std::int64_t lastStep) const {
    const std::int16_t* const source =
        m_plane + (at.y >> m_line.fractionBits) * m_pitch + (at.x >> m_line.fractionBits) - piece.begin;
    Fractions first = m_fractions.At(at);
    std::int32_t column = piece.begin;
    for (; column < piece.end && column <= lastStep; column += kStep, first = first + m_advance)
      SampleStep(source, column, first);
    if (column >= piece.end) return;
    const std::int32_t last = piece.end - kStep;
    if (last >= piece.begin)
      SampleStep(source, last, m_fractions.At(Position(m_line, last)));
    else
      kScalarOps.sampleRow(m_plane, m_pitch, m_line, {column, piece.end}, m_out);
  }

 private:
  void SampleStep(const std::int16_t* source, std::int32_t column, const Fractions& first) const {
    source += column;
    const __m256i near0 = Load32(source), near1 = Load32(source + 1);
    const __m256i far0 = Load32(source + m_pitch), far1 = Load32(source + m_pitch + 1);
    const Fractions low = first + m_low, high = first + m_high;
    const __m256i lowSamples =
        Bilinear(_mm256_unpacklo_epi16(near0, near1), _mm256_unpacklo_epi16(far0, far1),
                 WeightPairs(low.WeightsX()), low.WeightsY());
    const __m256i highSamples =
        Bilinear(_mm256_unpackhi_epi16(near0, near1), _mm256_unpackhi_epi16(far0, far1),
                 WeightPairs(high.WeightsX()), high.WeightsY());
    Store32(m_out + column, _mm256_packs_epi32(lowSamples, highSamples));
  }

  const std::int16_t* m_plane;
  std::ptrdiff_t m_pitch;
  const SourceLine& m_line;
  std::int16_t* m_out;
  FractionLine m_fractions;
  Fractions m_low, m_high, m_advance;
};

/// Whether pieces that read side by side are long enough to be worth finding.
bool IsNearlyStraight(const SourceLine& line) {
  constexpr int kColumns = 4;
  const std::int64_t one = std::int64_t{1} << line.fractionBits;
  return line.fractionBits <= 32 && line.stepX <= one && kColumns * (one - line.stepX) < one &&
         kColumns * line.stepY < one && kColumns * line.stepY > -one;
}

/// Whether every column reads one whole sample: so does an angle of zero, with which most levels begin.
bool IsUntouched(const SourceLine& line) {
  const std::int64_t one = std::int64_t{1} << line.fractionBits;
  return line.stepX == one && line.stepY == 0 && ((line.startX | line.startY) & (one - 1)) == 0;
}

void CopySamples(const std::int16_t* plane, std::ptrdiff_t pitch, const SourceLine& line, ColumnRun run,
                 std::int16_t* out) {
  if (run.begin >= run.end) return;
  const Position at(line, run.begin);
  std::memcpy(out + run.begin, plane + (at.y >> line.fractionBits) * pitch + (at.x >> line.fractionBits),
              static_cast<std::size_t>(run.end - run.begin) * sizeof *plane);
}

void SampleRow(const std::int16_t* plane, std::ptrdiff_t pitch, const SourceLine& line, ColumnRun run,
               std::int16_t* out) {
  if (!IsNearlyStraight(line)) return kScalarOps.sampleRow(plane, pitch, line, run, out);
  if (IsUntouched(line)) return CopySamples(plane, pitch, line, run, out);
  const PlaneSampler sampler(plane, pitch, line, out);
  ForStraightPieces(line, run, PlaneSampler::kStep,
                    [&](ColumnRun piece, const Position& at, std::int64_t lastStep) {
                      sampler.Sample(piece, at, lastStep);
                    });
}

/// Eight positions along a line, in lanes of 64 bits whose order makes packing them to 32 bits cheap.
class EightPositions {
 public:
  EightPositions(std::int64_t start, std::int64_t step, int fractionBits)
      : m_fractionBits(fractionBits),
        m_first(Ramp(start, step, 0, 1, 4, 5)),
        m_second(Ramp(start, step, 2, 3, 6, 7)),
        m_stride(_mm256_set1_epi64x(8 * step)) {}

  void Advance() {
    m_first = _mm256_add_epi64(m_first, m_stride);
    m_second = _mm256_add_epi64(m_second, m_stride);
  }

  __m256i Whole() const {
    const __m256i upper = Shuffle<0xDD>(m_first, m_second);
    return _mm256_sra_epi32(upper, _mm_cvtsi32_si128(m_fractionBits - 32));
  }

  __m256i NineBits() const {
    const __m128i shift = _mm_cvtsi32_si128(m_fractionBits - kWeightBits);
    const __m256i lower = Shuffle<0x88>(_mm256_srl_epi64(m_first, shift), _mm256_srl_epi64(m_second, shift));
    return _mm256_and_si256(lower, _mm256_set1_epi32((1 << kWeightBits) - 1));
  }

 private:
  static __m256i Ramp(std::int64_t start, std::int64_t step, int a, int b, int c, int d) {
    return _mm256_setr_epi64x(start + a * step, start + b * step, start + c * step, start + d * step);
  }

  template <int order>
  static __m256i Shuffle(__m256i a, __m256i b) {
    return _mm256_castps_si256(_mm256_shuffle_ps(_mm256_castsi256_ps(a), _mm256_castsi256_ps(b), order));
  }

  int m_fractionBits;
  __m256i m_first, m_second, m_stride;
};

/// One colour of eight pixels and of their right neighbours, side by side.
struct ColorPairs {
  __m256i blue, green, red;
};

/// For each half: where in its 16 bytes the pixels' blue bytes stand and those of their right neighbours.
/// Every other byte is cleared, which widens the rest.
ColorPairs PickPairs(__m256i bytes, __m256i blueOrder) {
  const __m256i next = _mm256_set1_epi32(0x00010001);
  const __m256i greenOrder = _mm256_add_epi8(blueOrder, next), redOrder = _mm256_add_epi8(greenOrder, next);
  return {_mm256_shuffle_epi8(bytes, blueOrder), _mm256_shuffle_epi8(bytes, greenOrder),
          _mm256_shuffle_epi8(bytes, redOrder)};
}

/// Writes eight pixels, of which each half holds four in its first 12 bytes.
void StorePixels(std::uint8_t* to, __m256i pixels) {
  const __m128i upper = _mm256_extracti128_si256(pixels, 1);
  Store16(to, _mm256_castsi256_si128(pixels));
  _mm_storel_epi64(reinterpret_cast<__m128i*>(to + 12), upper);
  _mm_storeu_si32(to + 20, _mm_srli_si128(upper, 8));
}

/// Eight bilinear pixels, as `StorePixels` takes them.
__m256i BilinearPixels(const ColorPairs& near, const ColorPairs& far, __m256i weightsX, __m256i weightsY) {
  // With the second weight scaled by 64 the mean stands in the highest byte of its lane.
  constexpr int kScale = 6;
  const __m256i pairsX = WeightPairs(weightsX), scaledY = _mm256_slli_epi32(weightsY, kScale);
  const auto mean = [&](__m256i nearPairs, __m256i farPairs) {
    const __m256i lower = _mm256_madd_epi16(nearPairs, pairsX), upper = _mm256_madd_epi16(farPairs, pairsX);
    const __m256i change = _mm256_mullo_epi32(_mm256_sub_epi32(upper, lower), scaledY);
    return _mm256_add_epi32(change, _mm256_slli_epi32(lower, kWeightBits + kScale));
  };
  const auto place = [](__m256i means, __m128i order) {
    return _mm256_shuffle_epi8(means, _mm256_broadcastsi128_si256(order));
  };
  const __m256i blue = place(mean(near.blue, far.blue),
                             _mm_setr_epi8(3, -1, -1, 7, -1, -1, 11, -1, -1, 15, -1, -1, -1, -1, -1, -1));
  const __m256i green = place(mean(near.green, far.green),
                              _mm_setr_epi8(-1, 3, -1, -1, 7, -1, -1, 11, -1, -1, 15, -1, -1, -1, -1, -1));
  const __m256i red = place(mean(near.red, far.red),
                            _mm_setr_epi8(-1, -1, 3, -1, -1, 7, -1, -1, 11, -1, -1, 15, -1, -1, -1, -1));
  return _mm256_or_si256(_mm256_or_si256(blue, green), red);
}

/// Makes eight columns of a frame at a time where they read side by side.
class FrameSampler {
 public:
  static constexpr std::int32_t kStep = 8;

  FrameSampler(const std::uint8_t* frame, std::ptrdiff_t strideBytes, const SourceLine& line,
               std::uint8_t* out)
      : m_frame(frame),
        m_strideBytes(strideBytes),
        m_line(line),
        m_out(out),
        m_fractions(line),
        m_columns(m_fractions.Over(_mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7))),
        m_advance(m_fractions.Over(_mm256_set1_epi32(kStep))) {}

  void Sample(ColumnRun piece, const Position& at, std::int64_t lastStep) const {
    const std::uint8_t* const source = m_frame + (at.y >> m_line.fractionBits) * m_strideBytes +
                                       ((at.x >> m_line.fractionBits) - piece.begin) * kBytesPerPixel;
    Fractions fractions = m_fractions.At(at) + m_columns;
    std::int32_t column = piece.begin;
    for (; column < piece.end && column <= lastStep; column += kStep, fractions = fractions + m_advance)
      SampleStep(source, column, fractions);
    if (column >= piece.end) return;
    const std::int32_t last = piece.end - kStep;
    if (last >= piece.begin)
      SampleStep(source, last, m_fractions.At(Position(m_line, last)) + m_columns);
    else
      kScalarOps.warpRowBilinear(m_frame, m_strideBytes, m_line, {column, piece.end}, m_out);
  }

 private:
  void SampleStep(const std::uint8_t* source, std::int32_t column, const Fractions& fractions) const {
    const std::ptrdiff_t offset = std::ptrdiff_t{column} * kBytesPerPixel;
    StorePixels(m_out + offset,
                BilinearPixels(LoadPairs(source + offset), LoadPairs(source + offset + m_strideBytes),
                               fractions.WeightsX(), fractions.WeightsY()));
  }

  /// The upper half ends with the last neighbour's bytes and so begins one byte before its first pixel.
  static ColorPairs LoadPairs(const std::uint8_t* from) {
    const __m256i order = _mm256_setr_epi8(0, -1, 3, -1, 3, -1, 6, -1, 6, -1, 9, -1, 9, -1, 12, -1,  //
                                           1, -1, 4, -1, 4, -1, 7, -1, 7, -1, 10, -1, 10, -1, 13, -1);
    return PickPairs(LoadHalves(from, from + 11), order);
  }

  const std::uint8_t* m_frame;
  std::ptrdiff_t m_strideBytes;
  const SourceLine& m_line;
  std::uint8_t* m_out;
  FractionLine m_fractions;
  Fractions m_columns, m_advance;
};

/// Where eight neighbouring columns of a warped row read. Source columns rise by at most one a column.
class EightSources {
 public:
  static constexpr std::int32_t kCount = 8;

  EightSources(const std::uint8_t* frame, std::ptrdiff_t strideBytes, const SourceLine& line,
               std::int32_t column)
      : m_frame(frame),
        m_strideBytes(strideBytes),
        m_line(line),
        m_first(line, column),
        m_x(m_first.x, line.stepX, line.fractionBits),
        m_y(m_first.y, line.stepY, line.fractionBits) {}

  void Advance() {
    m_first.x += kCount * m_line.stepX;
    m_first.y += kCount * m_line.stepY;
    m_x.Advance();
    m_y.Advance();
  }

  /// As `StorePixels` takes them.
  __m256i Nearest() const {
    if (!ReadsStraight()) {
      const __m128i triples = _mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
      return _mm256_shuffle_epi8(Gather(0), _mm256_broadcastsi128_si256(triples));
    }
    // Four distances become those of each pixel's three bytes.
    const __m128i repeated = _mm_setr_epi8(0, 0, 0, 4, 4, 4, 8, 8, 8, 12, 12, 12, -1, -1, -1, -1);
    const __m128i colors = _mm_setr_epi8(0, 1, 2, 0, 1, 2, 0, 1, 2, 0, 1, 2, 0, 0, 0, 0);
    const __m256i order =
        _mm256_add_epi8(_mm256_shuffle_epi8(DistancesInHalf(), _mm256_broadcastsi128_si256(repeated)),
                        _mm256_broadcastsi128_si256(colors));
    return _mm256_shuffle_epi8(LoadHalves(0), order);
  }

  __m256i Bilinear() const {
    const __m256i weightsX = m_x.NineBits(), weightsY = m_y.NineBits();
    if (!ReadsStraight())
      return BilinearPixels(GatherPairs(0), GatherPairs(m_strideBytes), weightsX, weightsY);
    const __m256i distances = DistancesInHalf();
    const __m256i order = _mm256_add_epi8(_mm256_or_si256(distances, _mm256_slli_epi32(distances, 16)),
                                          _mm256_set1_epi32(static_cast<int>(0x80038000)));
    return BilinearPixels(PickPairs(LoadHalves(0), order), PickPairs(LoadHalves(m_strideBytes), order),
                          weightsX, weightsY);
  }

 private:
  /// Whether each half of the columns reads from one row. Then its bytes are near each other, too.
  bool ReadsStraight() const {
    const __m256i y = m_y.Whole();
    return _mm256_movemask_epi8(_mm256_cmpeq_epi32(y, _mm256_shuffle_epi32(y, 0))) == -1;
  }

  /// 16 bytes a half, `offset` bytes further than its first source sample.
  __m256i LoadHalves(std::ptrdiff_t offset) const {
    return ::LoadHalves(m_frame + offset + OffsetOf(0), m_frame + offset + OffsetOf(kCount / 2));
  }

  std::ptrdiff_t OffsetOf(std::int32_t column) const {
    const std::int64_t x = m_first.x + column * m_line.stepX, y = m_first.y + column * m_line.stepY;
    return (y >> m_line.fractionBits) * m_strideBytes + (x >> m_line.fractionBits) * kBytesPerPixel;
  }

  /// Bytes from the half's first source sample to each column's.
  __m256i DistancesInHalf() const {
    const __m256i x = m_x.Whole();
    const __m256i samples = _mm256_sub_epi32(x, _mm256_shuffle_epi32(x, 0));
    return _mm256_add_epi32(samples, _mm256_add_epi32(samples, samples));
  }

  /// Four bytes a column, `offset` bytes further than its source sample.
  __m256i Gather(std::ptrdiff_t offset) const {
    const __m256i offsets =
        _mm256_add_epi32(_mm256_mullo_epi32(m_y.Whole(), _mm256_set1_epi32(static_cast<int>(m_strideBytes))),
                         _mm256_mullo_epi32(m_x.Whole(), _mm256_set1_epi32(kBytesPerPixel)));
    return _mm256_mask_i32gather_epi32(_mm256_setzero_si256(), reinterpret_cast<const int*>(m_frame + offset),
                                       offsets, _mm256_set1_epi32(-1), 1);
  }

  ColorPairs GatherPairs(std::ptrdiff_t offset) const {
    // The pixels' own bytes and the next pixel's blue; their red and the next pixel.
    const __m256i lower = Gather(offset), upper = Gather(offset + 2);
    const __m256i firstAndLast =
        _mm256_broadcastsi128_si256(_mm_setr_epi8(0, -1, 3, -1, 4, -1, 7, -1, 8, -1, 11, -1, 12, -1, 15, -1));
    const __m256i ownGreen = _mm256_and_si256(_mm256_srli_epi32(lower, 8), _mm256_set1_epi32(0x000000FF));
    const __m256i nextGreen = _mm256_and_si256(upper, _mm256_set1_epi32(0x00FF0000));
    return {_mm256_shuffle_epi8(lower, firstAndLast), _mm256_or_si256(ownGreen, nextGreen),
            _mm256_shuffle_epi8(upper, firstAndLast)};
  }

  const std::uint8_t* m_frame;
  std::ptrdiff_t m_strideBytes;
  const SourceLine& m_line;
  Position m_first;
  EightPositions m_x, m_y;
};

/// Where the last eight columns end of which each half may read `reach` samples from its first one on and
/// stay at or before the one beside the sample of the run's last column.
std::int32_t InteriorEnd(const SourceLine& line, ColumnRun run, std::int64_t reach) {
  constexpr std::int32_t kCount = EightSources::kCount;
  const auto sampleAt = [&](std::int32_t column) { return Position(line, column).x >> line.fractionBits; };
  std::int32_t end = run.begin + (run.end - run.begin) / kCount * kCount;
  while (end > run.begin && sampleAt(end - kCount / 2) + reach > sampleAt(run.end - 1) + 1) end -= kCount;
  return end;
}

/// The line with its positions `factor` times as fine.
SourceLine Scaled(const SourceLine& line, int bits) {
  const auto scaled = [bits](std::int64_t value) {
    return bits < 0 ? value >> -bits : value * (std::int64_t{1} << bits);
  };
  return {scaled(line.startX), scaled(line.startY), scaled(line.stepX), scaled(line.stepY),
          line.fractionBits + bits};
}

/// Warps the inside of a run by `pixelsOf(sources)` and returns what is left of it.
template <class PixelSource>
ColumnRun WarpInterior(const std::uint8_t* frame, std::ptrdiff_t strideBytes, const SourceLine& coarse,
                       ColumnRun run, std::int64_t reach, std::uint8_t* out, const PixelSource& pixelsOf) {
  const SourceLine line = Scaled(coarse, coarse.fractionBits < 32 ? 32 - coarse.fractionBits : 0);
  // Lines that turn by more than a quarter are left.
  if (run.begin >= run.end || line.stepX < 0 || line.stepX > std::int64_t{1} << line.fractionBits) return run;
  const std::int32_t end = InteriorEnd(line, run, reach);
  EightSources sources(frame, strideBytes, line, run.begin);
  for (; run.begin < end; run.begin += EightSources::kCount, sources.Advance())
    StorePixels(out + std::ptrdiff_t{run.begin} * kBytesPerPixel, pixelsOf(sources));
  return run;
}

void WarpRowNearest(const std::uint8_t* frame, std::ptrdiff_t strideBytes, const SourceLine& line,
                    ColumnRun run, std::uint8_t* out) {
  // From its threshold on a fraction counts as the next sample, which is a shift of the whole line.
  SourceLine shifted = line;
  const std::int64_t shift = std::int64_t{kNearestShift} << (line.fractionBits - kWeightBits);
  shifted.startX += shift;
  shifted.startY += shift;
  const ColumnRun rest = WarpInterior(frame, strideBytes, shifted, run, 6, out,
                                      [](const EightSources& sources) { return sources.Nearest(); });
  kScalarOps.warpRowNearest(frame, strideBytes, line, rest, out);
}

/// Unmagnified lines have their lowest bits clear and fit 32 fraction bits without them.
SourceLine WithoutClearBits(const SourceLine& line) {
  const int extra = line.fractionBits - 32;
  if (extra <= 0) return line;
  const std::int64_t bits = line.startX | line.startY | line.stepX | line.stepY;
  return (bits & ((std::int64_t{1} << extra) - 1)) == 0 ? Scaled(line, -extra) : line;
}

void WarpRowBilinear(const std::uint8_t* frame, std::ptrdiff_t strideBytes, const SourceLine& line,
                     ColumnRun run, std::uint8_t* out) {
  const SourceLine fine = WithoutClearBits(line);
  if (IsNearlyStraight(fine)) {
    const FrameSampler sampler(frame, strideBytes, fine, out);
    ForStraightPieces(fine, run, FrameSampler::kStep,
                      [&](ColumnRun piece, const Position& at, std::int64_t lastStep) {
                        sampler.Sample(piece, at, lastStep);
                      });
  } else {
    const ColumnRun rest = WarpInterior(frame, strideBytes, line, run, 5, out,
                                        [](const EightSources& sources) { return sources.Bilinear(); });
    kScalarOps.warpRowBilinear(frame, strideBytes, line, rest, out);
  }
}

}  // namespace

KernelOps MakeAvx2Ops() {
  KernelOps ops = kScalarOps;
  ops.name = "avx2";
  ops.copyBytes = StreamBytes;
  ops.greyRow = GreyRow;
  ops.reduceRow = ReduceRow;
  ops.addTranslationRow = AddTranslationRow;
  ops.addRotationRow = AddRotationRow;
  ops.sampleRow = SampleRow;
  ops.warpRowNearest = WarpRowNearest;
  ops.warpRowBilinear = WarpRowBilinear;
  return ops;
}
