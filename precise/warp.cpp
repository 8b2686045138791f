#include "precise/warp.h"

#include <algorithm>
#include <cstring>

#include "precise/loops.h"
#include "precise/sourceline.h"

namespace precise {
namespace {

/// The positions of a plane's samples, in luma samples: sample (c, r) is at (c·stepX + siteX, r·stepY +
/// siteY).
struct Grid {
  Grid(const PictureFormat& format, int plane) {
    if (!format.IsChroma(plane)) return;
    stepX = 1 << format.chromaShiftX;
    stepY = 1 << format.chromaShiftY;
    siteX = format.chromaSiteX;
    siteY = format.chromaSiteY;
  }

  double stepX = 1, stepY = 1, siteX = 0, siteY = 0;
};

/// The columns of a plane that the border leaves free; rows alike. `step` luma samples make one of the plane.
ColumnRun InsideBorder(std::int32_t samples, std::int32_t border, double step) {
  const auto covered = static_cast<std::int32_t>((border + step - 1) / step);
  return {std::min(covered, samples), std::max(samples - covered, std::min(covered, samples))};
}

constexpr WarpRows Loops::*kWarps[] = {&Loops::warpNearest, &Loops::warpBilinear, &Loops::warpBicubic};

/// The source lines of output rows.
class SourceLines {
 public:
  SourceLines(const Shown& shown, const Correction& correction, const Grid& grid)
      : m_grid(grid),
        m_aspect(shown.input.pixelAspect),
        m_centre{(shown.input.width - 1) / 2.0, (shown.input.height - 1) / 2.0},
        m_turn(1 / shown.zoom * Conjugate(correction.turn)),
        m_shift(Conjugate(correction.turn) * correction.shift),
        m_left((shown.left + grid.siteX - m_centre.re) * m_aspect),
        m_top(shown.top),
        m_stepX(FixedPosition(m_turn.re)),
        m_stepY(FixedPosition(m_turn.im * m_aspect * grid.stepX / grid.stepY)) {}

  SourceLine OfRow(std::int32_t row) const {
    const double y = m_top + row * m_grid.stepY + m_grid.siteY - m_centre.im;
    const Complex start = m_turn * Complex{m_left, y} - m_shift;
    return {FixedPosition((start.re / m_aspect + m_centre.re - m_grid.siteX) / m_grid.stepX),
            FixedPosition((start.im + m_centre.im - m_grid.siteY) / m_grid.stepY), m_stepX, m_stepY};
  }

 private:
  Grid m_grid;
  double m_aspect;
  Complex m_centre, m_turn, m_shift;
  double m_left, m_top;
  std::int64_t m_stepX, m_stepY;
};

/// Where the output rows of co-sited planes read, and which of their columns the source covers.
class Layout {
 public:
  Layout(const Shown& shown, const Correction& correction, int plane, const Grid& grid)
      : m_lines(shown, correction, grid),
        m_x(Covered(shown.input.PlaneWidth(plane), grid.stepX, grid.siteX)),
        m_y(Covered(shown.input.PlaneHeight(plane), grid.stepY, grid.siteY)),
        m_columns(InsideBorder(shown.output.PlaneWidth(plane), shown.borderX, grid.stepX)),
        m_rows(InsideBorder(shown.output.PlaneHeight(plane), shown.borderY, grid.stepY)) {}

  /// The output row, without the addresses of its samples.
  WarpedRow Row(std::int32_t row) const {
    const SourceLine line = m_lines.OfRow(row);
    ColumnRun covered = ColumnsInside(line, m_x, m_y, m_columns);
    if (row < m_rows.begin || row >= m_rows.end || covered.begin >= covered.end) covered = {0, 0};
    return {line, covered, {}};
  }

 private:
  // In samples of the plane. The picture begins half a luma sample before its first one, wherever chroma is
  // sited.
  static PositionRange Covered(std::int32_t samples, double step, double site) {
    const double first = (-0.5 - site) / step;
    return {FixedPosition(first), FixedPosition(first + samples)};
  }

  SourceLines m_lines;
  PositionRange m_x, m_y;  ///< covered
  ColumnRun m_columns, m_rows;
};

}  // namespace

void FillSamples(std::uint8_t* row, ColumnRun run, std::uint16_t value, int bytesPerSample) {
  if (bytesPerSample == 1) {
    std::fill(row + run.begin, row + run.end, static_cast<std::uint8_t>(value));
    return;
  }
  for (std::int32_t column = run.begin; column < run.end; ++column)
    std::memcpy(row + std::ptrdiff_t{column} * 2, &value, sizeof value);
}

void WarpPlanes(const Shown& shown, const Correction& correction, bool isChroma, const ConstPicture& in,
                const Picture& out, std::int32_t beginRow, std::int32_t endRow, bool keepUncovered,
                const Loops& loops) {
  const PictureFormat& input = shown.input;
  const std::array<int, kMaxCositedPlanes> planes = input.CositedPlanes(isChroma);
  const std::int32_t width = shown.output.PlaneWidth(planes[0]);
  const WarpRows warp = loops.*kWarps[static_cast<std::size_t>(shown.interpolation)];
  const Layout layout(shown, correction, planes[0], Grid(input, planes[0]));
  CositedPlanes sources = {};
  for (std::size_t i = 0; i < planes.size() && planes[i] >= 0; ++i) {
    const auto& [samples, strideBytes] = in[static_cast<std::size_t>(planes[i])];
    sources[i] = {samples, strideBytes, input.PlaneWidth(planes[i]), input.PlaneHeight(planes[i]),
                  input.bitsPerSample};
  }
  for (std::int32_t first = beginRow; first < endRow; first += kMaxWarpedRows) {
    const std::int32_t count = std::min(kMaxWarpedRows, endRow - first);
    std::array<WarpedRow, kMaxWarpedRows> rows;
    for (std::int32_t i = 0; i < count; ++i) {
      WarpedRow& row = rows[static_cast<std::size_t>(i)] = layout.Row(first + i);
      for (std::size_t of = 0; of < planes.size() && planes[of] >= 0; ++of) {
        const auto plane = static_cast<std::size_t>(planes[of]);
        row.out[of] = out[plane].data + (first + i) * out[plane].strideBytes;
        if (keepUncovered) continue;
        const std::uint16_t background = shown.background[plane];
        FillSamples(row.out[of], {0, row.covered.begin}, background, input.BytesPerSample());
        FillSamples(row.out[of], {row.covered.end, width}, background, input.BytesPerSample());
      }
    }
    warp(sources, rows.data(), count);
  }
}

}  // namespace precise
