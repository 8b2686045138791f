#include <cstring>

#include "kernel/frame.h"
#include "kernel/loops.h"

namespace {

void CopyBytes(const std::uint8_t* from, std::uint8_t* to, std::ptrdiff_t count) {
  std::memcpy(to, from, static_cast<std::size_t>(count));
}

void GreyRow(const std::uint8_t* pixels, std::int16_t* grey, std::int32_t count) {
  for (std::int32_t i = 0; i < count; ++i, pixels += kBytesPerPixel)
    grey[i] = static_cast<std::int16_t>(pixels[0] + pixels[1] + 2 * pixels[2]);
}

void ReduceRow(const FiveRows& rows, std::int16_t* out, std::int32_t count) {
  for (std::int32_t i = 0; i < count; ++i) {
    const auto at = [&](int up, int right) {
      return std::int32_t{rows[static_cast<std::size_t>(2 + up)][2 * i + right]};
    };
    const std::int32_t axial1 = at(-1, 0) + at(1, 0) + at(0, -1) + at(0, 1);
    const std::int32_t diagonal1 = at(-1, -1) + at(-1, 1) + at(1, -1) + at(1, 1);
    const std::int32_t axial2 = at(-2, 0) + at(2, 0) + at(0, -2) + at(0, 2);
    const std::int32_t knight =
        at(-2, -1) + at(-2, 1) + at(2, -1) + at(2, 1) + at(-1, -2) + at(-1, 2) + at(1, -2) + at(1, 2);
    const std::int32_t corner = at(-2, -2) + at(-2, 2) + at(2, -2) + at(2, 2);
    out[i] = static_cast<std::int16_t>(
        (164 * at(0, 0) + 102 * axial1 + 64 * diagonal1 + 20 * axial2 + 13 * knight + 3 * corner) >> 10);
  }
}

/// A sample's gradients and its temporal difference.
struct Gradients {
  std::int32_t x, y, t;
};

Gradients GradientsAt(const std::int16_t* previous, const ThreeRows& current, std::int32_t i) {
  return {current[1][i - 1] - current[1][i + 1], current[0][i] - current[2][i], previous[i] - current[1][i]};
}

void AddTranslationRow(const std::int16_t* previous, const ThreeRows& current, std::int32_t count,
                       TranslationSums& sums) {
  TranslationSums total = sums;
  for (std::int32_t i = 0; i < count; ++i) {
    const Gradients g = GradientsAt(previous, current, i);
    total.xx += g.x * g.x;
    total.xy += g.x * g.y;
    total.yy += g.y * g.y;
    total.xt += g.x * g.t;
    total.yt += g.y * g.t;
  }
  sums = total;
}

void AddRotationRow(const std::int16_t* previous, const RotatedRow& current, std::int32_t count,
                    RotationSums& sums) {
  RotationSums total = sums;
  for (std::int32_t i = 0; i < count; ++i) {
    const Gradients g = GradientsAt(previous, current.samples, i);
    const std::int32_t r = current.turnedLess[i] - current.turnedMore[i];
    total.rr += r * r;
    total.rx += r * g.x;
    total.ry += r * g.y;
    total.xx += g.x * g.x;
    total.xy += g.x * g.y;
    total.yy += g.y * g.y;
    total.rt += r * g.t;
    total.xt += g.x * g.t;
    total.yt += g.y * g.t;
  }
  sums = total;
}

/// The source of a destination column: a sample, and the weights of its right and upper neighbours.
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

/// Weighted mean of four neighbours, `step` values apart in a row and `pitch` values apart between rows.
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

const KernelOps kScalarOps = {"scalar",       CopyBytes, GreyRow,        ReduceRow,      AddTranslationRow,
                              AddRotationRow, SampleRow, WarpRowNearest, WarpRowBilinear};
