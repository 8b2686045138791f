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

/// How many steps a position takes before its whole part is another one.
std::int64_t StepsToNextWhole(std::int64_t position, std::int64_t step, int fractionBits) {
  const std::int64_t last = (std::int64_t{1} << fractionBits) - 1;
  const std::int64_t fraction = position & last;
  if (step > 0) return (last - fraction) / step + 1;
  return step < 0 ? fraction / -step + 1 : std::int64_t{1} << 31;
}

/// How many columns from `at` on read side by side in one row.
std::int64_t StraightColumns(const SourceLine& line, const Position& at) {
  const std::int64_t one = std::int64_t{1} << line.fractionBits;
  const std::int64_t alongRow = StepsToNextWhole(at.x, line.stepX - one, line.fractionBits);
  const std::int64_t inRow = StepsToNextWhole(at.y, line.stepY, line.fractionBits);
  return alongRow < inRow ? alongRow : inRow;
}

/// Fractions of eight columns that advance by `step`, as 32-bit numbers that wrap around at one.
class Fractions {
 public:
  Fractions(std::int64_t step, int fractionBits, __m256i columns)
      : m_shift(32 - fractionBits), m_ramp(_mm256_mullo_epi32(columns, _mm256_set1_epi32(Wrap(step)))) {}

  __m256i WeightsFrom(std::int64_t position) const {
    return _mm256_srli_epi32(_mm256_add_epi32(m_ramp, _mm256_set1_epi32(Wrap(position))), 32 - kWeightBits);
  }

 private:
  int Wrap(std::int64_t value) const {
    return static_cast<int>(static_cast<std::uint32_t>(static_cast<std::uint64_t>(value) << m_shift));
  }

  int m_shift;
  __m256i m_ramp;
};

/// Each lane's weights of a near and a far neighbour, side by side.
__m256i WeightPairs(__m256i far) {
  const __m256i near = _mm256_sub_epi32(_mm256_set1_epi32(1 << kWeightBits), far);
  return _mm256_or_si256(near, _mm256_slli_epi32(far, 16));
}

/// Weighted means of eight pairs of neighbours in one row and in the next.
__m256i Bilinear(__m256i nearPairs, __m256i farPairs, __m256i weightPairsX, __m256i weightY) {
  const __m256i near = _mm256_madd_epi16(nearPairs, weightPairsX);
  const __m256i far = _mm256_madd_epi16(farPairs, weightPairsX);
  const __m256i change = _mm256_mullo_epi32(_mm256_sub_epi32(far, near), weightY);
  return _mm256_srli_epi32(_mm256_add_epi32(change, _mm256_slli_epi32(near, kWeightBits)), 2 * kWeightBits);
}

/// Samples rows in straight pieces: the camera turns by little, so the source row changes rarely and the
/// source column advances by one.
class PlaneSampler {
 public:
  static constexpr std::int32_t kStep = 16;

  PlaneSampler(const std::int16_t* plane, std::ptrdiff_t pitch, const SourceLine& line)
      : m_plane(plane),
        m_pitch(pitch),
        m_line(line),
        m_lowX(line.stepX, line.fractionBits, kLowColumns()),
        m_highX(line.stepX, line.fractionBits, kHighColumns()),
        m_lowY(line.stepY, line.fractionBits, kLowColumns()),
        m_highY(line.stepY, line.fractionBits, kHighColumns()) {}

  /// `run` is straight and at least one step long.
  void Sample(ColumnRun run, std::int16_t* out) const {
    const Position first(m_line, run.begin);
    const std::int16_t* const source =
        m_plane + (first.y >> m_line.fractionBits) * m_pitch + (first.x >> m_line.fractionBits);
    for (std::int32_t begin = run.begin; begin < run.end; begin += kStep) {
      const std::int32_t column = begin + kStep <= run.end ? begin : run.end - kStep;
      Store32(out + column, SampleStep(source + (column - run.begin), Position(m_line, column)));
    }
  }

 private:
  // Unpacking and packing work on halves of a vector, which leaves the columns in this order between them.
  static __m256i kLowColumns() { return _mm256_setr_epi32(0, 1, 2, 3, 8, 9, 10, 11); }
  static __m256i kHighColumns() { return _mm256_setr_epi32(4, 5, 6, 7, 12, 13, 14, 15); }

  __m256i SampleStep(const std::int16_t* source, const Position& at) const {
    const __m256i near0 = Load32(source), near1 = Load32(source + 1);
    const __m256i far0 = Load32(source + m_pitch), far1 = Load32(source + m_pitch + 1);
    const __m256i low = Bilinear(_mm256_unpacklo_epi16(near0, near1), _mm256_unpacklo_epi16(far0, far1),
                                 WeightPairs(m_lowX.WeightsFrom(at.x)), m_lowY.WeightsFrom(at.y));
    const __m256i high = Bilinear(_mm256_unpackhi_epi16(near0, near1), _mm256_unpackhi_epi16(far0, far1),
                                  WeightPairs(m_highX.WeightsFrom(at.x)), m_highY.WeightsFrom(at.y));
    return _mm256_packs_epi32(low, high);
  }

  const std::int16_t* m_plane;
  std::ptrdiff_t m_pitch;
  const SourceLine& m_line;
  Fractions m_lowX, m_highX, m_lowY, m_highY;
};

void SampleRow(const std::int16_t* plane, std::ptrdiff_t pitch, const SourceLine& line, ColumnRun run,
               std::int16_t* out) {
  if (line.fractionBits > 32) return kScalarOps.sampleRow(plane, pitch, line, run, out);
  const PlaneSampler sampler(plane, pitch, line);
  while (run.begin < run.end) {
    const std::int64_t straight = StraightColumns(line, Position(line, run.begin));
    const std::int32_t left = run.end - run.begin;
    const ColumnRun piece = {run.begin,
                             straight < left ? run.begin + static_cast<std::int32_t>(straight) : run.end};
    if (piece.end - piece.begin >= PlaneSampler::kStep)
      sampler.Sample(piece, out);
    else
      kScalarOps.sampleRow(plane, pitch, line, piece, out);
    run.begin = piece.end;
  }
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

  __m256i Weights() const {
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

  __m256i WeightsX() const { return m_x.Weights(); }
  __m256i WeightsY() const { return m_y.Weights(); }

  /// Whether each half of the columns reads from one row. Then its bytes are near each other, too.
  bool ReadsStraight() const {
    const __m256i y = m_y.Whole();
    return _mm256_movemask_epi8(_mm256_cmpeq_epi32(y, _mm256_shuffle_epi32(y, 0))) == -1;
  }

  /// 16 bytes a half from its first source sample on, `rows` rows further.
  __m256i LoadHalves(int rows) const {
    const std::uint8_t* const from = m_frame + rows * m_strideBytes;
    return ::LoadHalves(from + HalfOffset(0), from + HalfOffset(kCount / 2));
  }

  /// Bytes from the half's first source sample to each column's, in bytes 0 and 2 of its lane.
  __m256i DistancesInHalf() const {
    const __m256i x = m_x.Whole();
    const __m256i samples = _mm256_sub_epi32(x, _mm256_shuffle_epi32(x, 0));
    const __m256i bytes = _mm256_add_epi32(samples, _mm256_add_epi32(samples, samples));
    return _mm256_or_si256(bytes, _mm256_slli_epi32(bytes, 16));
  }

  /// Four bytes a column, `bytes` further than its source sample.
  __m256i Gather(std::ptrdiff_t bytes) const {
    const __m256i offsets =
        _mm256_add_epi32(_mm256_mullo_epi32(m_y.Whole(), _mm256_set1_epi32(static_cast<int>(m_strideBytes))),
                         _mm256_mullo_epi32(m_x.Whole(), _mm256_set1_epi32(kBytesPerPixel)));
    return _mm256_mask_i32gather_epi32(_mm256_setzero_si256(), reinterpret_cast<const int*>(m_frame + bytes),
                                       offsets, _mm256_set1_epi32(-1), 1);
  }

  std::ptrdiff_t StrideBytes() const { return m_strideBytes; }

 private:
  std::ptrdiff_t HalfOffset(std::int32_t column) const {
    const std::int64_t x = m_first.x + column * m_line.stepX, y = m_first.y + column * m_line.stepY;
    return (y >> m_line.fractionBits) * m_strideBytes + (x >> m_line.fractionBits) * kBytesPerPixel;
  }

  const std::uint8_t* m_frame;
  std::ptrdiff_t m_strideBytes;
  const SourceLine& m_line;
  Position m_first;
  EightPositions m_x, m_y;
};

/// Eight pixels, blue lowest, each below a byte of zeros.
__m256i NearestPixels(const EightSources& sources) {
  const __m256i color = _mm256_set1_epi32(0x00FFFFFF);
  if (!sources.ReadsStraight()) return _mm256_and_si256(sources.Gather(0), color);
  const __m256i distances = sources.DistancesInHalf();
  const __m256i order = _mm256_add_epi8(_mm256_or_si256(distances, _mm256_slli_epi32(distances, 8)),
                                        _mm256_set1_epi32(0x00020100));
  return _mm256_and_si256(_mm256_shuffle_epi8(sources.LoadHalves(0), order), color);
}

/// One colour of eight pixels and of their right neighbours, side by side.
struct ColorPairs {
  __m256i blue, green, red;
};

ColorPairs LoadPairs(const EightSources& sources, int rows) {
  const __m256i bytes = sources.LoadHalves(rows);
  // Every other byte is cleared, which widens the rest.
  const __m256i blue =
      _mm256_add_epi8(sources.DistancesInHalf(), _mm256_set1_epi32(static_cast<int>(0x80038000)));
  const __m256i next = _mm256_set1_epi32(0x00010001);
  const __m256i green = _mm256_add_epi8(blue, next), red = _mm256_add_epi8(green, next);
  return {_mm256_shuffle_epi8(bytes, blue), _mm256_shuffle_epi8(bytes, green),
          _mm256_shuffle_epi8(bytes, red)};
}

ColorPairs GatherPairs(const EightSources& sources, int rows) {
  // The pixels' own bytes and the next pixel's blue; their red and the next pixel.
  const __m256i lower = sources.Gather(rows * sources.StrideBytes());
  const __m256i upper = sources.Gather(rows * sources.StrideBytes() + 2);
  const __m256i firstAndLast =
      _mm256_broadcastsi128_si256(_mm_setr_epi8(0, -1, 3, -1, 4, -1, 7, -1, 8, -1, 11, -1, 12, -1, 15, -1));
  const __m256i ownGreen = _mm256_and_si256(_mm256_srli_epi32(lower, 8), _mm256_set1_epi32(0x000000FF));
  const __m256i nextGreen = _mm256_and_si256(upper, _mm256_set1_epi32(0x00FF0000));
  return {_mm256_shuffle_epi8(lower, firstAndLast), _mm256_or_si256(ownGreen, nextGreen),
          _mm256_shuffle_epi8(upper, firstAndLast)};
}

__m256i BilinearPixels(const EightSources& sources) {
  const bool straight = sources.ReadsStraight();
  const auto pairs = [&](int rows) {
    return straight ? LoadPairs(sources, rows) : GatherPairs(sources, rows);
  };
  const ColorPairs near = pairs(0), far = pairs(1);
  const __m256i weightsX = WeightPairs(sources.WeightsX()), weightsY = sources.WeightsY();
  const __m256i blue = Bilinear(near.blue, far.blue, weightsX, weightsY);
  const __m256i green = Bilinear(near.green, far.green, weightsX, weightsY);
  const __m256i red = Bilinear(near.red, far.red, weightsX, weightsY);
  return _mm256_or_si256(blue, _mm256_or_si256(_mm256_slli_epi32(green, 8), _mm256_slli_epi32(red, 16)));
}

/// Writes the 24 bytes of eight pixels.
void StorePixels(std::uint8_t* to, __m256i pixels) {
  const __m256i packed = _mm256_shuffle_epi8(
      pixels,
      _mm256_broadcastsi128_si256(_mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1)));
  const __m128i upper = _mm256_extracti128_si256(packed, 1);
  Store16(to, _mm256_castsi256_si128(packed));
  _mm_storel_epi64(reinterpret_cast<__m128i*>(to + 12), upper);
  _mm_storeu_si32(to + 20, _mm_srli_si128(upper, 8));
}

/// The line in units of at least 32 fraction bits.
SourceLine Refined(SourceLine line) {
  for (; line.fractionBits < 32; ++line.fractionBits) {
    line.startX *= 2;
    line.startY *= 2;
    line.stepX *= 2;
    line.stepY *= 2;
  }
  return line;
}

/// Where the last eight columns end of which each half may read `reach` samples from its first one on and
/// stay at or before the one beside the sample of the run's last column.
std::int32_t InteriorEnd(const SourceLine& line, ColumnRun run, std::int64_t reach) {
  constexpr std::int32_t kCount = EightSources::kCount;
  const auto sampleAt = [&](std::int32_t column) { return Position(line, column).x >> line.fractionBits; };
  std::int32_t end = run.begin + (run.end - run.begin) / kCount * kCount;
  while (end > run.begin && sampleAt(end - kCount / 2) + reach > sampleAt(run.end - 1) + 1) end -= kCount;
  return end;
}

/// Warps the inside of a run and returns what is left of it.
template <class PixelSource>
ColumnRun WarpInterior(const std::uint8_t* frame, std::ptrdiff_t strideBytes, const SourceLine& coarse,
                       ColumnRun run, std::int64_t reach, std::uint8_t* out, const PixelSource& pixelsOf) {
  const SourceLine line = Refined(coarse);
  // Other lines turn by more than a quarter.
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
  const ColumnRun rest = WarpInterior(frame, strideBytes, shifted, run, 6, out, NearestPixels);
  kScalarOps.warpRowNearest(frame, strideBytes, line, rest, out);
}

void WarpRowBilinear(const std::uint8_t* frame, std::ptrdiff_t strideBytes, const SourceLine& line,
                     ColumnRun run, std::uint8_t* out) {
  const ColumnRun rest = WarpInterior(frame, strideBytes, line, run, 5, out, BilinearPixels);
  kScalarOps.warpRowBilinear(frame, strideBytes, line, rest, out);
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
