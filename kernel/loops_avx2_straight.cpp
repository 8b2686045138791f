#include <cstring>

#include "kernel/frame.h"
#include "kernel/loops_avx2_sampling.h"

// Samples along lines that advance by nearly one source column per column and stay nearly in one row. Cameras
// turn by little, so most pieces of such a line are long.

namespace {

/// Finds the columns at which a position's whole part changes. Each is computed one ahead, so that its
/// division overlaps with the work on earlier columns.
class WholeChanges {
 public:
  WholeChanges(std::int64_t start, std::int64_t step, int fractionBits, std::int32_t firstColumn)
      : m_start(start),
        m_step(step),
        m_largestFraction((std::int64_t{1} << fractionBits) - 1),
        m_next(firstColumn) {
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
    const std::int64_t fraction = (m_start + column * m_step) & m_largestFraction;
    if (m_step > 0) return column + (m_largestFraction - fraction) / m_step + 1;
    return m_step < 0 ? column + fraction / -m_step + 1 : kNever;
  }

  static constexpr std::int64_t kNever = std::int64_t{1} << 31;

  std::int64_t m_start, m_step, m_largestFraction, m_next, m_following = 0;
};

/// The fractions of eight source positions, as 32-bit numbers that wrap at one.
struct Fractions {
  __m256i x, y;

  Fractions operator+(const Fractions& other) const {
    return {_mm256_add_epi32(x, other.x), _mm256_add_epi32(y, other.y)};
  }
  __m256i WeightsX() const { return _mm256_srli_epi32(x, 32 - kWeightBits); }
  __m256i WeightsY() const { return _mm256_srli_epi32(y, 32 - kWeightBits); }
};

/// The fractions of one position, in all lanes. The line has at most 32 fraction bits.
Fractions FractionsAt(const SourceLine& line, std::int64_t x, std::int64_t y) {
  const auto spread = [&](std::int64_t value) {
    const std::uint64_t wrapped = static_cast<std::uint64_t>(value) << (32 - line.fractionBits);
    return _mm256_set1_epi32(static_cast<int>(static_cast<std::uint32_t>(wrapped)));
  };
  return {spread(x), spread(y)};
}

/// What the fractions gain over the given numbers of columns.
Fractions FractionsOver(const SourceLine& line, __m256i columns) {
  const Fractions step = FractionsAt(line, line.stepX, line.stepY);
  return {_mm256_mullo_epi32(columns, step.x), _mm256_mullo_epi32(columns, step.y)};
}

/// Eight bilinear samples. Pairs are neighbours in the near row and in the far row.
__m256i Bilinear(__m256i nearPairs, __m256i farPairs, __m256i weightPairsX, __m256i weightsY) {
  const __m256i near = _mm256_madd_epi16(nearPairs, weightPairsX);
  const __m256i far = _mm256_madd_epi16(farPairs, weightPairsX);
  const __m256i change = _mm256_mullo_epi32(_mm256_sub_epi32(far, near), weightsY);
  return _mm256_srli_epi32(_mm256_add_epi32(change, _mm256_slli_epi32(near, kWeightBits)), 2 * kWeightBits);
}

/// Samples a piece in steps of `Sampler::kStep` columns. A step may end beyond the piece only if it begins at
/// column `lastOverrun` or before.
template <class Sampler>
void SamplePiece(const SourceLine& line, ColumnRun piece, std::int64_t lastOverrun, const Sampler& sampler) {
  constexpr std::int32_t kStep = Sampler::kStep;
  const Position at(line, piece.begin);
  const auto* const source = sampler.SourceAt(at.x >> line.fractionBits, at.y >> line.fractionBits);
  const auto step = [&](std::int32_t column, const Fractions& first) {
    sampler.Step(source + std::ptrdiff_t{column - piece.begin} * Sampler::kValuesPerSample, column, first);
  };
  const Fractions advance = FractionsOver(line, _mm256_set1_epi32(kStep));
  Fractions first = FractionsAt(line, at.x, at.y);
  std::int32_t column = piece.begin;
  for (; column + kStep <= piece.end || (column < piece.end && column <= lastOverrun); column += kStep) {
    step(column, first);
    first = first + advance;
  }
  if (column >= piece.end) return;
  const std::int32_t last = piece.end - kStep;
  if (last >= piece.begin)
    step(last, FractionsAt(line, line.startX + last * line.stepX, line.startY + last * line.stepY));
  else
    sampler.Rest(line, {column, piece.end});
}

/// Cuts a run into pieces and samples them. A step may write columns beyond its piece; the next piece
/// overwrites them.
template <class Sampler>
void SampleStraight(const SourceLine& line, ColumnRun run, const Sampler& sampler) {
  if (run.begin >= run.end) return;
  const std::int64_t one = std::int64_t{1} << line.fractionBits;
  const auto sampleAt = [&](std::int32_t column) { return Position(line, column).x >> line.fractionBits; };
  // Over the run the line falls behind by `lag` samples, because it advances by at most one per column. A
  // step reads one sample per column. So it must end `lag` columns before the run's end: else it would read
  // beyond the run's last sample.
  const std::int64_t lag = sampleAt(run.begin) - run.begin - (sampleAt(run.end - 1) - (run.end - 1));
  const std::int64_t lastOverrun = run.end - Sampler::kStep - lag;
  WholeChanges columnSlips(line.startX, line.stepX - one, line.fractionBits, run.begin);
  WholeChanges rowChanges(line.startY, line.stepY, line.fractionBits, run.begin);
  while (run.begin < run.end) {
    if (columnSlips.Next() == run.begin) columnSlips.Advance();
    if (rowChanges.Next() == run.begin) rowChanges.Advance();
    const std::int64_t end = columnSlips.Next() < rowChanges.Next() ? columnSlips.Next() : rowChanges.Next();
    const ColumnRun piece = {run.begin, end < run.end ? static_cast<std::int32_t>(end) : run.end};
    SamplePiece(line, piece, lastOverrun, sampler);
    run.begin = piece.end;
  }
}

/// Makes 16 columns of a plane at a time.
///
///   loaded     0 1 2 3 4 5 6 7 | 8 9 10 11 12 13 14 15     columns, one per 16-bit lane
///   m_low      0 1 2 3         | 8 9 10 11                 after unpacking the lower lanes of each half
///   m_high             4 5 6 7 |            12 13 14 15    after unpacking the upper lanes of each half
///   packed     0 1 2 3 4 5 6 7 | 8 9 10 11 12 13 14 15
class PlaneSampler {
 public:
  static constexpr std::int32_t kStep = 16;
  static constexpr std::ptrdiff_t kValuesPerSample = 1;

  PlaneSampler(const std::int16_t* plane, std::ptrdiff_t pitch, const SourceLine& line, std::int16_t* out)
      : m_plane(plane),
        m_pitch(pitch),
        m_out(out),
        m_low(FractionsOver(line, _mm256_setr_epi32(0, 1, 2, 3, 8, 9, 10, 11))),
        m_high(FractionsOver(line, _mm256_setr_epi32(4, 5, 6, 7, 12, 13, 14, 15))) {}

  const std::int16_t* SourceAt(std::int64_t x, std::int64_t y) const { return m_plane + y * m_pitch + x; }

  void Step(const std::int16_t* source, std::int32_t column, const Fractions& first) const {
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

/// Whether the line's pieces are long enough to be worth finding. In rotated pictures they usually are, in
/// magnified ones usually not.
bool IsNearlyStraight(const SourceLine& line) {
  constexpr int kColumnsAlongRow = 16, kColumnsInRow = 4;
  const std::int64_t one = std::int64_t{1} << line.fractionBits;
  return line.fractionBits <= 32 && line.stepX <= one && kColumnsAlongRow * (one - line.stepX) < one &&
         kColumnsInRow * line.stepY < one && kColumnsInRow * line.stepY > -one;
}

/// Whether the columns read whole samples of one row, one after the other. Most levels begin with such lines,
/// at the angle zero.
bool ReadsWholeSamples(const SourceLine& line) {
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

/// Makes eight columns of a frame at a time.
class FrameSampler {
 public:
  static constexpr std::int32_t kStep = 8;
  static constexpr std::ptrdiff_t kValuesPerSample = kBytesPerPixel;

  FrameSampler(const std::uint8_t* frame, std::ptrdiff_t strideBytes, const SourceLine& line,
               std::uint8_t* out)
      : m_frame(frame),
        m_strideBytes(strideBytes),
        m_out(out),
        m_columns(FractionsOver(line, _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7))) {}

  const std::uint8_t* SourceAt(std::int64_t x, std::int64_t y) const {
    return m_frame + y * m_strideBytes + x * kBytesPerPixel;
  }

  void Step(const std::uint8_t* source, std::int32_t column, const Fractions& first) const {
    PrefetchRowsAhead(source, m_strideBytes);
    const Fractions fractions = first + m_columns;
    StorePixels(m_out + std::ptrdiff_t{column} * kBytesPerPixel,
                BilinearPixels(LoadPairs(source), LoadPairs(source + m_strideBytes), fractions.WeightsX(),
                               fractions.WeightsY()));
  }

  void Rest(const SourceLine& line, ColumnRun run) const {
    kScalarOps.warpRowBilinear(m_frame, m_strideBytes, line, run, m_out);
  }

 private:
  /// The upper half must end with the last neighbour's bytes, so it begins one byte before its first pixel.
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

/// Drops fraction bits below the 32 highest if they are zero, as they are in frames that are not magnified.
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
  else if (ReadsWholeSamples(line))
    CopySamples(plane, pitch, line, run, out);
  else
    SampleStraight(line, run, PlaneSampler(plane, pitch, line, out));
}

bool WarpStraightRow(const std::uint8_t* frame, std::ptrdiff_t strideBytes, const SourceLine& line,
                     ColumnRun run, std::uint8_t* out) {
  const SourceLine fine = WithoutClearBits(line);
  if (!IsNearlyStraight(fine)) return false;
  SampleStraight(fine, run, FrameSampler(frame, strideBytes, fine, out));
  return true;
}

}  // namespace avx2
