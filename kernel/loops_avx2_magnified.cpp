#include "kernel/frame.h"
#include "kernel/loops_avx2_sampling.h"

// Warps along lines of any slope that advance by at most one source column per column. A step makes eight
// columns, four in each half of a vector. A half usually reads one source row; then 16 bytes hold all its
// pixels, and a shuffle picks them. If the source row changes within a half, all eight pixels are gathered.

namespace {

/// Eight positions along a line, in lanes of 64 bits. A shuffle takes 32 bits of each lane, which brings the
/// columns into order:
///
///   m_first    0   1  |  4   5      columns from the first one on
///   m_second   2   3  |  6   7
///   shuffled   0 1 2 3 | 4 5 6 7
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

  __m256i WholeParts() const {
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

/// Reads the source pixels of eight neighbouring columns.
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

  /// The nearest pixels, in the layout of `StorePixels`.
  __m256i Nearest() const {
    if (!HalvesReadOneRow()) {
      const __m128i triples = _mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
      return _mm256_shuffle_epi8(Gather(0), _mm256_broadcastsi128_si256(triples));
    }
    // Each pixel's distance is repeated for its three bytes.
    const __m128i repeated = _mm_setr_epi8(0, 0, 0, 4, 4, 4, 8, 8, 8, 12, 12, 12, -1, -1, -1, -1);
    const __m128i colors = _mm_setr_epi8(0, 1, 2, 0, 1, 2, 0, 1, 2, 0, 1, 2, 0, 0, 0, 0);
    const __m256i order =
        _mm256_add_epi8(_mm256_shuffle_epi8(DistancesInHalf(), _mm256_broadcastsi128_si256(repeated)),
                        _mm256_broadcastsi128_si256(colors));
    return _mm256_shuffle_epi8(LoadHalves(0), order);
  }

  /// Bilinear pixels, in the layout of `StorePixels`.
  __m256i Bilinear() const {
    const __m256i weightsX = m_x.Weights(), weightsY = m_y.Weights();
    if (!HalvesReadOneRow())
      return BilinearPixels(GatherPairs(0), GatherPairs(m_strideBytes), weightsX, weightsY);
    const __m256i distances = DistancesInHalf();
    const __m256i order = _mm256_add_epi8(_mm256_or_si256(distances, _mm256_slli_epi32(distances, 16)),
                                          _mm256_set1_epi32(static_cast<int>(0x80038000)));
    return BilinearPixels(PickPairs(LoadHalves(0), order), PickPairs(LoadHalves(m_strideBytes), order),
                          weightsX, weightsY);
  }

 private:
  /// Whether each half of the columns reads one source row. Then 16 bytes hold its pixels and their right
  /// neighbours.
  bool HalvesReadOneRow() const {
    const __m256i y = m_y.WholeParts();
    return _mm256_movemask_epi8(_mm256_cmpeq_epi32(y, _mm256_shuffle_epi32(y, 0))) == -1;
  }

  /// Loads 16 bytes into each half, from `offset` bytes after its first source pixel on.
  __m256i LoadHalves(std::ptrdiff_t offset) const {
    return ::LoadHalves(m_frame + offset + OffsetOf(0), m_frame + offset + OffsetOf(kCount / 2));
  }

  std::ptrdiff_t OffsetOf(std::int32_t column) const {
    const std::int64_t x = m_first.x + column * m_line.stepX, y = m_first.y + column * m_line.stepY;
    return (y >> m_line.fractionBits) * m_strideBytes + (x >> m_line.fractionBits) * kBytesPerPixel;
  }

  /// For each column, the bytes from its half's first source pixel to its own.
  __m256i DistancesInHalf() const {
    const __m256i x = m_x.WholeParts();
    const __m256i samples = _mm256_sub_epi32(x, _mm256_shuffle_epi32(x, 0));
    return _mm256_add_epi32(samples, _mm256_add_epi32(samples, samples));
  }

  /// Loads four bytes for each column, from `offset` bytes after its source pixel on.
  __m256i Gather(std::ptrdiff_t offset) const {
    const __m256i offsets = _mm256_add_epi32(
        _mm256_mullo_epi32(m_y.WholeParts(), _mm256_set1_epi32(static_cast<int>(m_strideBytes))),
        _mm256_mullo_epi32(m_x.WholeParts(), _mm256_set1_epi32(kBytesPerPixel)));
    return _mm256_mask_i32gather_epi32(_mm256_setzero_si256(), reinterpret_cast<const int*>(m_frame + offset),
                                       offsets, _mm256_set1_epi32(-1), 1);
  }

  ColorPairs GatherPairs(std::ptrdiff_t offset) const {
    // Each pixel has bytes b g r and its right neighbour B G R: the first four are "bgrB", the last four
    // "rBGR".
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

/// The end of the last step that may load 16 bytes for each half. Loads must not reach beyond the source
/// sample of the run's last column and that sample's `neighbours` to the right.
std::int32_t InteriorEnd(const SourceLine& line, ColumnRun run, int neighbours) {
  constexpr std::int32_t kCount = EightSources::kCount;
  constexpr int kSamplesIn16Bytes = 6;  // only a part of the last one
  const auto sampleAt = [&](std::int32_t column) { return Position(line, column).x >> line.fractionBits; };
  const std::int64_t lastSample = sampleAt(run.end - 1) + neighbours;
  std::int32_t end = run.begin + (run.end - run.begin) / kCount * kCount;
  while (end > run.begin && sampleAt(end - kCount / 2) + kSamplesIn16Bytes - 1 > lastSample) end -= kCount;
  return end;
}

/// Warps a run in steps of eight columns, as far as loads allow, and returns the rest of the run. The rest is
/// the whole run if the line runs backwards or advances by more than one source column per column.
template <class PixelSource>
ColumnRun WarpInterior(const std::uint8_t* frame, std::ptrdiff_t strideBytes, const SourceLine& coarse,
                       ColumnRun run, int neighbours, std::uint8_t* out, const PixelSource& pixelsOf) {
  const SourceLine line = Scaled(coarse, coarse.fractionBits < 32 ? 32 - coarse.fractionBits : 0);
  if (run.begin >= run.end || line.stepX < 0 || line.stepX > std::int64_t{1} << line.fractionBits) return run;
  const std::int32_t end = InteriorEnd(line, run, neighbours);
  EightSources sources(frame, strideBytes, line, run.begin);
  for (; run.begin < end; run.begin += EightSources::kCount, sources.Advance()) {
    sources.PrefetchAhead();
    StorePixels(out + std::ptrdiff_t{run.begin} * kBytesPerPixel, pixelsOf(sources));
  }
  return run;
}

}  // namespace

namespace avx2 {

void WarpRowNearest(const std::uint8_t* frame, std::ptrdiff_t strideBytes, const SourceLine& line,
                    ColumnRun run, std::uint8_t* out) {
  // From the threshold on, a fraction counts as the next sample. The line is shifted so that such fractions
  // reach that sample.
  SourceLine shifted = line;
  const std::int64_t shift = std::int64_t{kWeightOne - kNearestThreshold}
                             << (line.fractionBits - kWeightBits);
  shifted.startX += shift;
  shifted.startY += shift;
  const ColumnRun rest = WarpInterior(frame, strideBytes, shifted, run, 0, out,
                                      [](const EightSources& sources) { return sources.Nearest(); });
  kScalarOps.warpRowNearest(frame, strideBytes, line, rest, out);
}

void WarpRowBilinear(const std::uint8_t* frame, std::ptrdiff_t strideBytes, const SourceLine& line,
                     ColumnRun run, std::uint8_t* out) {
  if (WarpStraightRow(frame, strideBytes, line, run, out)) return;
  const ColumnRun rest = WarpInterior(frame, strideBytes, line, run, 1, out,
                                      [](const EightSources& sources) { return sources.Bilinear(); });
  kScalarOps.warpRowBilinear(frame, strideBytes, line, rest, out);
}

}  // namespace avx2
