#pragma once

#include <array>
#include <cstdint>

#include "precise/loops.h"
#include "precise/path.h"
#include "precise/picture.h"
#include "precise/stabilizer.h"

namespace precise {

/// What a delivered picture shows of the corrected one.
struct Shown {
  PictureFormat input, output;
  Interpolation interpolation = Interpolation::Bicubic;
  double zoom = 1;                        ///< magnification about the centre
  std::int32_t left = 0, top = 0;         ///< cut off, in luma samples
  std::int32_t borderX = 0, borderY = 0;  ///< covered by background at each side, in luma samples
  std::array<std::uint16_t, kMaxPlanes> background = {};
};

/// Fills samples begin … end - 1 of the row.
void FillSamples(std::uint8_t* row, ColumnRun run, std::uint16_t value, int bytesPerSample);

/// Writes rows begin … end - 1 of chroma, or of luma and alpha. What no source sample covers becomes
/// background, or stays as it is in `out` with `keepUncovered`.
void WarpPlanes(const Shown& shown, const Correction& correction, bool isChroma, const ConstPicture& in,
                const Picture& out, std::int32_t beginRow, std::int32_t endRow, bool keepUncovered,
                const Loops& loops);

}  // namespace precise
