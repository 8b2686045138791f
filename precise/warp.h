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
  std::int32_t left = 0, top = 0;         ///< cut off at each side, in luma samples
  std::int32_t borderX = 0, borderY = 0;  ///< covered by background at each side, in luma samples
  std::array<std::uint16_t, kMaxPlanes> background = {};  ///< a sample value for each plane
};

/// Sets samples begin … end - 1 of the row to the value. `bytesPerSample` is 1 or 2.
void FillSamples(std::uint8_t* row, ColumnRun run, std::uint16_t value, int bytesPerSample);

/// Writes rows beginRow … endRow - 1 of both chroma planes of the corrected picture, or of luma and alpha.
/// `in` has planes of the input format, `out` planes of the output format. Samples that the source does not
/// cover become background, or with `keepUncovered` stay in `out` as they are.
void WarpPlanes(const Shown& shown, const Correction& correction, bool isChroma, const ConstPicture& in,
                const Picture& out, std::int32_t beginRow, std::int32_t endRow, bool keepUncovered,
                const Loops& loops);

}  // namespace precise
