#include "kernel/framecompensation.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "kernel/sampling.h"

namespace {

constexpr std::int32_t kNoZoom = 32;
constexpr std::int32_t kStrongestZoom = 16;

// Magnifications 32 / 16 … 32 / 32, rounded to four decimals. Exact ratios would choose other zoom steps for
// some margins.
constexpr std::array<double, 17> kMagnifications = {2.0,    1.8824, 1.7778, 1.6842, 1.6,    1.5238,
                                                    1.4545, 1.3913, 1.3333, 1.28,   1.2308, 1.1852,
                                                    1.1429, 1.1034, 1.0667, 1.0323, 1.0};

std::size_t PixelBytes(std::int32_t pixels) { return static_cast<std::size_t>(pixels) * kBytesPerPixel; }

void FillRows(const Compensation& compensation, std::uint8_t* output, std::int32_t begin, std::int32_t end) {
  for (std::int32_t row = begin; row < end; ++row)
    std::memcpy(output + compensation.frame.Offset(0, row), compensation.backgroundRow.data(),
                compensation.backgroundRow.size());
}

void FillColumns(const Compensation& compensation, std::uint8_t* row, std::int32_t begin, std::int32_t end) {
  if (begin < end)
    std::memcpy(row + PixelBytes(begin), compensation.backgroundRow.data(), PixelBytes(end - begin));
}

void FillColumnsOfAllRows(const Compensation& compensation, std::uint8_t* output, std::int32_t begin,
                          std::int32_t end) {
  if (begin >= end) return;
  for (std::int32_t row = 0; row < compensation.frame.height; ++row)
    FillColumns(compensation, output + compensation.frame.Offset(0, row), begin, end);
}

/// Shifts by whole pixels. All bytes are copied as one block, so some pixels land in a neighbouring row; the
/// background overwrites those.
void Translate(const Compensation& compensation, const std::uint8_t* source, std::int32_t dx, std::int32_t dy,
               std::uint8_t* output) {
  const FrameGeometry& frame = compensation.frame;
  const std::ptrdiff_t offset = frame.Offset(dx, dy);
  const std::ptrdiff_t length = frame.SizeBytes() - std::abs(offset);
  std::memcpy(output + std::max<std::ptrdiff_t>(offset, 0), source + std::max<std::ptrdiff_t>(-offset, 0),
              static_cast<std::size_t>(length));

  FillRows(compensation, output, dy >= 0 ? 0 : frame.height + dy, dy >= 0 ? dy : frame.height);
  FillColumnsOfAllRows(compensation, output, dx >= 0 ? 0 : frame.width + dx, dx >= 0 ? dx : frame.width);
}

/// The affine map from output to source pixels: a rotation and magnification about the centre, then the
/// shift.
class WarpMap {
 public:
  WarpMap(const Compensation& compensation, const MotionRecord& correction)
      : m_precision(RotationBits(compensation.frame.width, compensation.frame.height, 15)) {
    const FixedRotation rotation(RadiansFromDegrees(correction.theta), m_precision);
    const std::int32_t zoom = compensation.zoomStep;
    m_cosine = rotation.cosine * zoom;
    m_sine = rotation.sine * zoom;
    // The centre of rotation is ((w - 1) / 2, (h - 1) / 2), but the shift back from it is (w / 2, h / 2). The
    // bytes of warped frames depend on that half pixel.
    const std::int64_t width = compensation.frame.width, height = compensation.frame.height;
    m_originX = (width - 1) * m_cosine - (height - 1) * m_sine - Shift(width, correction.dx, zoom);
    m_originY = (height - 1) * m_cosine + (width - 1) * m_sine - Shift(height, correction.dy, zoom);
  }

  /// Positions are doubled, so that the centre is a whole number, and scaled by 32 for the zoom: 6 bits in
  /// all.
  SourceLine Line(std::int32_t row) const {
    return {-2 * row * m_sine - m_originX, 2 * row * m_cosine - m_originY, 2 * m_cosine, 2 * m_sine,
            m_precision + 6};
  }

 private:
  std::int64_t Shift(std::int64_t side, std::int32_t shift, std::int32_t zoom) const {
    const auto scaled = static_cast<std::int64_t>(shift * (32.0 / zoom) * zoom);
    return (32 * side - 2 * scaled) * (std::int64_t{1} << m_precision);
  }

  int m_precision;
  std::int64_t m_cosine, m_sine, m_originX, m_originY;
};

void Warp(const Compensation& compensation, const std::uint8_t* source, const MotionRecord& correction,
          std::uint8_t* output, const KernelOps& ops) {
  const FrameGeometry& frame = compensation.frame;
  const Rect& area = compensation.outputRect;
  const WarpMap map(compensation, correction);
  const auto warpRow =
      compensation.interpolation == Interpolation::Nearest ? ops.warpRowNearest : ops.warpRowBilinear;
  for (std::int32_t row = area.top; row < area.bottom; ++row) {
    std::uint8_t* const outputRow = output + frame.Offset(0, row);
    const SourceLine line = map.Line(row);
    const ColumnRun run = UsableColumns(line, frame.width, frame.height, {area.left, area.right});
    FillColumns(compensation, outputRow, area.left, run.begin);
    warpRow(source, frame.strideBytes, line, run, outputRow);
    FillColumns(compensation, outputRow, run.end, area.right);
  }
}

/// Draws a background border as wide as the margins. The last memory row is always background, so the border
/// has one row more there.
void Outline(const Compensation& compensation, std::uint8_t* output) {
  const FrameGeometry& frame = compensation.frame;
  FillRows(compensation, output, 0, compensation.cropMarginY);
  FillRows(compensation, output, frame.height - compensation.cropMarginY - 1, frame.height);
  FillColumnsOfAllRows(compensation, output, 0, compensation.cropMarginX);
  FillColumnsOfAllRows(compensation, output, frame.width - compensation.cropMarginX, frame.width);
}

/// Moves the area inside the margins to the frame's start, with the packed pitch. If that pitch exceeds the
/// stride, later rows move towards the frame's end. Those are copied last to first, so no copy overwrites a
/// row that is still to be read. Rows are cut at the frame's end.
void CropInPlace(const Compensation& compensation, std::uint8_t* output) {
  const FrameGeometry& frame = compensation.frame;
  const Rect& area = compensation.outputRect;
  const std::int32_t rows = area.bottom - area.top;
  const std::ptrdiff_t pitch = PackedCropPitch(area.right - area.left);
  const auto from = [&](std::int32_t row) { return frame.Offset(area.left, area.top + row); };
  const auto copyRow = [&](std::int32_t row) {
    const auto available =
        static_cast<std::size_t>(std::max<std::ptrdiff_t>(frame.SizeBytes() - row * pitch, 0));
    const std::size_t length = std::min(PixelBytes(area.right - area.left), available);
    if (length > 0) std::memmove(output + row * pitch, output + from(row), length);
  };

  std::int32_t firstMovingUp = 0;
  while (firstMovingUp < rows && firstMovingUp * pitch <= from(firstMovingUp)) ++firstMovingUp;
  for (std::int32_t row = rows; row-- > firstMovingUp;) copyRow(row);
  for (std::int32_t row = 0; row < firstMovingUp; ++row) copyRow(row);
}

}  // namespace

Compensation::Compensation(const KernelParams& params)
    : frame(params.width, params.height),
      cropMarginX(params.cropMarginX),
      cropMarginY(params.cropMarginY),
      interpolation(params.interpolation == static_cast<std::uint32_t>(Interpolation::Nearest)
                        ? Interpolation::Nearest
                        : Interpolation::Bilinear),
      clippingOption(static_cast<ClippingOption>(params.clippingOption)),
      zoomStep(ComputeZoom(clippingOption, frame.width, frame.height, cropMarginX, cropMarginY)),
      outputRect(clippingOption == ClippingOption::CropAndStretch
                     ? Rect{0, 0, frame.width, frame.height}
                     : Rect{cropMarginX, cropMarginY, frame.width - cropMarginX, frame.height - cropMarginY}),
      backgroundRow(static_cast<std::size_t>(frame.strideBytes)) {
  for (std::size_t i = 0; i < PixelBytes(frame.width); ++i)
    backgroundRow[i] = params.backgroundColor[i % kBytesPerPixel];
}

std::int32_t ComputeZoom(ClippingOption clippingOption, std::int32_t width, std::int32_t height,
                         std::int32_t cropMarginX, std::int32_t cropMarginY) {
  if (clippingOption != ClippingOption::CropAndStretch) return kNoZoom;
  const auto needed = [](std::int32_t side, std::int32_t margin) {
    return static_cast<double>(side) / static_cast<double>(side - 2 * margin);
  };
  const double need = std::max(needed(height, cropMarginY), needed(width, cropMarginX));
  std::size_t best = 0;
  double bestDistance = 2.0;
  for (std::size_t i = 0; i < kMagnifications.size(); ++i) {
    const double distance = std::abs(need - kMagnifications[i]);
    if (distance < bestDistance) {
      best = i;
      bestDistance = distance;
    }
  }
  return kStrongestZoom + static_cast<std::int32_t>(best);
}

void CompensateFrame(const Compensation& compensation, const std::uint8_t* source,
                     const MotionRecord& correction, std::uint8_t* output, const KernelOps& ops) {
  if (correction.theta == 0 && compensation.clippingOption == ClippingOption::Outline)
    Translate(compensation, source, correction.dx, correction.dy, output);
  else
    Warp(compensation, source, correction, output, ops);

  if (compensation.clippingOption == ClippingOption::Outline)
    Outline(compensation, output);
  else if (compensation.clippingOption == ClippingOption::Crop)
    CropInPlace(compensation, output);
}
