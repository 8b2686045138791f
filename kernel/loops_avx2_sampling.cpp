#include <cstring>

#include "kernel/frame.h"
#include "kernel/loops.h"
#include "kernel/loops_avx2.h"

// Lines advance by nearly one source column a column, or by less where a frame is magnified. Where they stay
// in one row and side by side, samples come from plain loads and positions need no more than their fractions;
// where they are magnified, a shuffle picks neighbouring samples; only columns around a change of row are
// gathered.

namespace {

/// A source position at one column of a line.
struct Position {
  std::int64_t x, y;

  Position(const SourceLine& line, std::int32_t column)
      : x(line.startX + column * line.stepX), y(line.startY + column * line.stepY) {}
};

/// Asks for what the rows soon to come read. Rows of a turned picture are read in short pieces, from which
/// the processor learns nothing by itself. The address may lie outside the picture: it is a number and a hint
/// only.
void PrefetchRowsAhead(const void* source, std::ptrdiff_t rowBytes) {
  constexpr int kRows = 4;
  const auto address =
      reinterpret_cast<std::uintptr_t>(source) + static_cast<std::uintptr_t>(kRows * rowBytes);
  const auto* const ahead =
      reinterpret_cast<const void*>(address);  // NOLINT(performance-no-int-to-ptr): hint
  _mm_prefetch(ahead, _MM_HINT_T0);
}

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
  const __m256i near = _mm256_sub_epi32(_mm256_set1_epi32(kWeightOne), far);
  return _mm256_or_si256(near, _mm256_slli_epi32(far, 16));
}

/// Weighted means of eight pairs of neighbours in one row and in the next.
__m256i Bilinear(__m256i nearPairs, __m256i farPairs, __m256i weightPairsX, __m256i weightsY) {
  const __m256i near = _mm256_madd_epi16(nearPairs, weightPairsX);
  const __m256i far = _mm256_madd_epi16(farPairs, weightPairsX);
  const __m256i change = _mm256_mullo_epi32(_mm256_sub_epi32(far, near), weightsY);
  return _mm256_srli_epi32(_mm256_add_epi32(change, _mm256_slli_epi32(near, kWeightBits)), 2 * kWeightBits);
}

/// Samples a piece that reads side by side. Steps that begin after column `lastOverrun` must end with it.
template <class Sampler>
void SamplePiece(const SourceLine& line, ColumnRun piece, std::int64_t lastOverrun, const Sampler& sampler) {
  constexpr std::int32_t kStep = Sampler::kStep;
  const FractionLine fractions(line);
  const Position at(line, piece.begin);
  const auto* const source =
      sampler.SourceOf(at.x >> line.fractionBits, at.y >> line.fractionBits, piece.begin);
  const Fractions advance = fractions.Over(_mm256_set1_epi32(kStep));
  Fractions first = fractions.At(at);
  std::int32_t column = piece.begin;
  for (; column + kStep <= piece.end || (column < piece.end && column <= lastOverrun); column += kStep) {
    sampler.Step(source, column, first);
    first = first + advance;
  }
  if (column >= piece.end) return;
  const std::int32_t last = piece.end - kStep;
  if (last >= piece.begin)
    sampler.Step(source, last, fractions.At(Position(line, last)));
  else
    sampler.Rest(line, {column, piece.end});
}

/// Cuts a run into pieces that read side by side in one row, and samples them in steps of `Sampler::kStep`
/// columns. A camera turns by little, so most pieces are long. A step may read on past its piece's end and
/// write there what the next piece mends.
template <class Sampler>
void SampleStraight(const SourceLine& line, ColumnRun run, const Sampler& sampler) {
  if (run.begin >= run.end) return;
  const std::int64_t one = std::int64_t{1} << line.fractionBits;
  const auto sampleAt = [&](std::int32_t column) { return Position(line, column).x >> line.fractionBits; };
  // Source columns advance by one or less: reading on must end with what the run's last column reads.
  const std::int64_t lag = sampleAt(run.begin) - run.begin - (sampleAt(run.end - 1) - (run.end - 1));
  const std::int64_t lastOverrun = run.end - Sampler::kStep - lag;
  WholeChanges alongRow(line.startX, line.stepX - one, line.fractionBits, run.begin);
  WholeChanges ofRow(line.startY, line.stepY, line.fractionBits, run.begin);
  while (run.begin < run.end) {
    if (alongRow.Next() == run.begin) alongRow.Advance();
    if (ofRow.Next() == run.begin) ofRow.Advance();
    const std::int64_t end = alongRow.Next() < ofRow.Next() ? alongRow.Next() : ofRow.Next();
    const ColumnRun piece = {run.begin, end < run.end ? static_cast<std::int32_t>(end) : run.end};
    SamplePiece(line, piece, lastOverrun, sampler);
    run.begin = piece.end;
  }
}

/// Makes 16 columns of a plane at a time. Unpacking and packing work on halves of a vector, so that the
/// columns between them stand in an order of their own.
class PlaneSampler {
 public:
  static constexpr std::int32_t kStep = 16;

  PlaneSampler(const std::int16_t* plane, std::ptrdiff_t pitch, const SourceLine& line, std::int16_t* out)
      : m_plane(plane),
        m_pitch(pitch),
        m_out(out),
        m_low(FractionLine(line).Over(_mm256_setr_epi32(0, 1, 2, 3, 8, 9, 10, 11))),
        m_high(FractionLine(line).Over(_mm256_setr_epi32(4, 5, 6, 7, 12, 13, 14, 15))) {}

  /// Where column 0 would read if `column` reads sample (x, y).
  const std::int16_t* SourceOf(std::int64_t x, std::int64_t y, std::int32_t column) const {
    return m_plane + y * m_pitch + x - column;
  }

  void Step(const std::int16_t* source, std::int32_t column, const Fractions& first) const {
    source += column;
    PrefetchRowsAhead(source, m_pitch * static_cast<std::ptrdiff_t>(sizeof *source));
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

  void Rest(const SourceLine& line, ColumnRun run) const {
    kScalarOps.sampleRow(m_plane, m_pitch, line, run, m_out);
  }

 private:
  const std::int16_t* m_plane;
  std::ptrdiff_t m_pitch;
  std::int16_t* m_out;
  Fractions m_low, m_high;
};

/// Whether pieces that read side by side are long enough to be worth finding: at a magnification they are
/// not, at a rotation mostly.
bool IsNearlyStraight(const SourceLine& line) {
  constexpr int kColumnsAlongRow = 16, kColumnsInRow = 4;
  const std::int64_t one = std::int64_t{1} << line.fractionBits;
  return line.fractionBits <= 32 && line.stepX <= one && kColumnsAlongRow * (one - line.stepX) < one &&
         kColumnsInRow * line.stepY < one && kColumnsInRow * line.stepY > -one;
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

  /// The highest 9 bits of the fractions.
  __m256i Weights() const {
    const __m128i shift = _mm_cvtsi32_si128(m_fractionBits - kWeightBits);
    const __m256i lower = Shuffle<0x88>(_mm256_srl_epi64(m_first, shift), _mm256_srl_epi64(m_second, shift));
    return _mm256_and_si256(lower, _mm256_set1_epi32(kWeightOne - 1));
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

/// Eight bilinear pixels, as `StorePixels` takes them. Part of each loop: a call would pass the vectors
/// through memory.
[[gnu::always_inline]] inline __m256i BilinearPixels(const ColorPairs& near, const ColorPairs& far,
                                                     __m256i weightsX, __m256i weightsY) {
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
        m_out(out),
        m_columns(FractionLine(line).Over(_mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7))) {}

  /// Where column 0 would read if `column` reads sample (x, y).
  const std::uint8_t* SourceOf(std::int64_t x, std::int64_t y, std::int32_t column) const {
    return m_frame + y * m_strideBytes + (x - column) * kBytesPerPixel;
  }

  void Step(const std::uint8_t* source, std::int32_t column, const Fractions& first) const {
    const std::ptrdiff_t offset = std::ptrdiff_t{column} * kBytesPerPixel;
    PrefetchRowsAhead(source + offset, m_strideBytes);
    const Fractions fractions = first + m_columns;
    StorePixels(m_out + offset,
                BilinearPixels(LoadPairs(source + offset), LoadPairs(source + offset + m_strideBytes),
                               fractions.WeightsX(), fractions.WeightsY()));
  }

  void Rest(const SourceLine& line, ColumnRun run) const {
    kScalarOps.warpRowBilinear(m_frame, m_strideBytes, line, run, m_out);
  }

 private:
  /// The upper half ends with the last neighbour's bytes and so begins one byte before its first pixel.
  static ColorPairs LoadPairs(const std::uint8_t* from) {
    const __m256i order = _mm256_setr_epi8(0, -1, 3, -1, 3, -1, 6, -1, 6, -1, 9, -1, 9, -1, 12, -1,  //
                                           1, -1, 4, -1, 4, -1, 7, -1, 7, -1, 10, -1, 10, -1, 13, -1);
    return PickPairs(LoadHalves(from, from + 11), order);
  }

  const std::uint8_t* m_frame;
  std::ptrdiff_t m_strideBytes;
  std::uint8_t* m_out;
  Fractions m_columns;
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

  void PrefetchAhead() const { PrefetchRowsAhead(m_frame + OffsetOf(0), m_strideBytes); }

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
    const __m256i weightsX = m_x.Weights(), weightsY = m_y.Weights();
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

/// The line with `bits` more fraction bits, or fewer.
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
  // What turns by more than a quarter is left.
  if (run.begin >= run.end || line.stepX < 0 || line.stepX > std::int64_t{1} << line.fractionBits) return run;
  const std::int32_t end = InteriorEnd(line, run, reach);
  EightSources sources(frame, strideBytes, line, run.begin);
  for (; run.begin < end; run.begin += EightSources::kCount, sources.Advance()) {
    sources.PrefetchAhead();
    StorePixels(out + std::ptrdiff_t{run.begin} * kBytesPerPixel, pixelsOf(sources));
  }
  return run;
}

/// Unmagnified lines have their lowest bits clear and fit 32 fraction bits without them.
SourceLine WithoutClearBits(const SourceLine& line) {
  const int extra = line.fractionBits - 32;
  if (extra <= 0) return line;
  const std::int64_t bits = line.startX | line.startY | line.stepX | line.stepY;
  return (bits & ((std::int64_t{1} << extra) - 1)) == 0 ? Scaled(line, -extra) : line;
}

}  // namespace

namespace avx2 {

void SampleRow(const std::int16_t* plane, std::ptrdiff_t pitch, const SourceLine& line, ColumnRun run,
               std::int16_t* out) {
  if (!IsNearlyStraight(line))
    kScalarOps.sampleRow(plane, pitch, line, run, out);
  else if (IsUntouched(line))
    CopySamples(plane, pitch, line, run, out);
  else
    SampleStraight(line, run, PlaneSampler(plane, pitch, line, out));
}

void WarpRowNearest(const std::uint8_t* frame, std::ptrdiff_t strideBytes, const SourceLine& line,
                    ColumnRun run, std::uint8_t* out) {
  // From its threshold on a fraction counts as the next sample, which is a shift of the whole line.
  SourceLine shifted = line;
  const std::int64_t shift = std::int64_t{kWeightOne - kNearestThreshold}
                             << (line.fractionBits - kWeightBits);
  shifted.startX += shift;
  shifted.startY += shift;
  const ColumnRun rest = WarpInterior(frame, strideBytes, shifted, run, 6, out,
                                      [](const EightSources& sources) { return sources.Nearest(); });
  kScalarOps.warpRowNearest(frame, strideBytes, line, rest, out);
}

void WarpRowBilinear(const std::uint8_t* frame, std::ptrdiff_t strideBytes, const SourceLine& line,
                     ColumnRun run, std::uint8_t* out) {
  const SourceLine fine = WithoutClearBits(line);
  if (IsNearlyStraight(fine)) return SampleStraight(fine, run, FrameSampler(frame, strideBytes, fine, out));
  const ColumnRun rest = WarpInterior(frame, strideBytes, line, run, 5, out,
                                      [](const EightSources& sources) { return sources.Bilinear(); });
  kScalarOps.warpRowBilinear(frame, strideBytes, line, rest, out);
}

}  // namespace avx2
