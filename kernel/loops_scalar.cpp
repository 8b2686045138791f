#include "kernel/frame.h"
#include "kernel/loops.h"

namespace {

constexpr int kWeightBits = 9;
constexpr std::int32_t kWeightOne = 1 << kWeightBits;
// The nearest sample is the next one from this fraction on: 255, not the half-way 256.
constexpr std::int32_t kNearestThreshold = 255;

void GreyRow(const std::uint8_t* pixels, std::int16_t* grey, std::int32_t count) {
  for (std::int32_t i = 0; i < count; ++i, pixels += kBytesPerPixel)
    grey[i] = static_cast<std::int16_t>(pixels[0] + pixels[1] + 2 * pixels[2]);
}

void ReduceRow(const std::int16_t* centre, std::ptrdiff_t pitch, std::int16_t* out, std::int32_t count) {
  for (std::int32_t i = 0; i < count; ++i, centre += 2) {
    const std::int16_t* const up2 = centre - 2 * pitch;
    const std::int16_t* const up1 = centre - pitch;
    const std::int16_t* const down1 = centre + pitch;
    const std::int16_t* const down2 = centre + 2 * pitch;
    const std::int32_t axial1 = up1[0] + down1[0] + centre[-1] + centre[1];
    const std::int32_t diagonal1 = up1[-1] + up1[1] + down1[-1] + down1[1];
    const std::int32_t axial2 = up2[0] + down2[0] + centre[-2] + centre[2];
    const std::int32_t knight =
        up2[-1] + up2[1] + down2[-1] + down2[1] + up1[-2] + up1[2] + down1[-2] + down1[2];
    const std::int32_t corner = up2[-2] + up2[2] + down2[-2] + down2[2];
    out[i] = static_cast<std::int16_t>(
        (164 * centre[0] + 102 * axial1 + 64 * diagonal1 + 20 * axial2 + 13 * knight + 3 * corner) >> 10);
  }
}

void AddTranslationRow(const std::int16_t* previous, const std::int16_t* current, std::ptrdiff_t pitch,
                       std::int32_t count, TranslationSums& sums) {
  TranslationSums total = sums;
  for (std::int32_t i = 0; i < count; ++i) {
    const std::int32_t gx = current[i - 1] - current[i + 1];
    const std::int32_t gy = current[i - pitch] - current[i + pitch];
    const std::int32_t gt = previous[i] - current[i];
    total.xx += gx * gx;
    total.xy += gx * gy;
    total.yy += gy * gy;
    total.xt += gx * gt;
    total.yt += gy * gt;
  }
  sums = total;
}

void AddRotationRow(const std::int16_t* previous, const std::int16_t* current, std::ptrdiff_t pitch,
                    const std::int16_t* derivative, std::int32_t count, RotationSums& sums) {
  RotationSums total = sums;
  for (std::int32_t i = 0; i < count; ++i) {
    const std::int32_t gr = derivative[i];
    const std::int32_t gx = current[i - 1] - current[i + 1];
    const std::int32_t gy = current[i - pitch] - current[i + pitch];
    const std::int32_t gt = previous[i] - current[i];
    total.rr += gr * gr;
    total.rx += gr * gx;
    total.ry += gr * gy;
    total.xx += gx * gx;
    total.xy += gx * gy;
    total.yy += gy * gy;
    total.rt += gr * gt;
    total.xt += gx * gt;
    total.yt += gy * gt;
  }
  sums = total;
}

/// Where a destination column reads: the whole sample and the 9-bit weights of its right and upper
/// neighbours.
struct SourceSample {
  std::int64_t x, y;
  std::int32_t weightX, weightY;
};

SourceSample SampleAt(const SourceLine& line, std::int32_t column) {
  const std::int64_t x = line.startX + column * line.stepX;
  const std::int64_t y = line.startY + column * line.stepY;
  const int weightShift = line.fractionBits - kWeightBits;
  return {x >> line.fractionBits, y >> line.fractionBits,
          static_cast<std::int32_t>(x >> weightShift) & (kWeightOne - 1),
          static_cast<std::int32_t>(y >> weightShift) & (kWeightOne - 1)};
}

/// Weighted mean of four neighbours: `step` apart along the row, `pitch` apart between rows.
template <class T>
T Bilinear(const T* corner, std::ptrdiff_t step, std::ptrdiff_t pitch, const SourceSample& at) {
  const std::int32_t near0 = corner[0], near1 = corner[step];
  const std::int32_t far0 = corner[pitch], far1 = corner[pitch + step];
  const std::int32_t near = near0 * kWeightOne + (near1 - near0) * at.weightX;
  const std::int32_t far = far0 * kWeightOne + (far1 - far0) * at.weightX;
  return static_cast<T>(((far - near) * at.weightY + near * kWeightOne) >> (2 * kWeightBits));
}

void SampleRow(const std::int16_t* plane, std::ptrdiff_t pitch, const SourceLine& line, ColumnRun run,
               std::int16_t* out) {
  for (std::int32_t column = run.begin; column < run.end; ++column) {
    const SourceSample at = SampleAt(line, column);
    out[column] = Bilinear(plane + at.y * pitch + at.x, 1, pitch, at);
  }
}

void WarpRowNearest(const std::uint8_t* frame, std::ptrdiff_t strideBytes, const SourceLine& line,
                    ColumnRun run, std::uint8_t* out) {
  for (std::int32_t column = run.begin; column < run.end; ++column) {
    const SourceSample at = SampleAt(line, column);
    const std::int64_t x = at.x + (at.weightX >= kNearestThreshold ? 1 : 0);
    const std::int64_t y = at.y + (at.weightY >= kNearestThreshold ? 1 : 0);
    const std::uint8_t* const pixel = frame + y * strideBytes + x * kBytesPerPixel;
    for (int i = 0; i < kBytesPerPixel; ++i) out[std::ptrdiff_t{column} * kBytesPerPixel + i] = pixel[i];
  }
}

void WarpRowBilinear(const std::uint8_t* frame, std::ptrdiff_t strideBytes, const SourceLine& line,
                     ColumnRun run, std::uint8_t* out) {
  for (std::int32_t column = run.begin; column < run.end; ++column) {
    const SourceSample at = SampleAt(line, column);
    const std::uint8_t* const corner = frame + at.y * strideBytes + at.x * kBytesPerPixel;
    for (int i = 0; i < kBytesPerPixel; ++i)
      out[std::ptrdiff_t{column} * kBytesPerPixel + i] =
          Bilinear(corner + i, kBytesPerPixel, strideBytes, at);
  }
}

}  // namespace

const KernelOps kScalarOps = {"scalar",       GreyRow,   ReduceRow,      AddTranslationRow,
                              AddRotationRow, SampleRow, WarpRowNearest, WarpRowBilinear};
