#pragma once

#include "precise/loops.h"

namespace precise {

/// The warps of rows that read the source nearly as it lies: unmagnified, and turned by less than a degree.
/// False where the rows are none of these; some may have been written then.
bool WarpBlocksBilinear(const AlikePlanes& planes, const WarpedRow* rows, std::int32_t count);
bool WarpBlocksBicubic(const AlikePlanes& planes, const WarpedRow* rows, std::int32_t count);

}  // namespace precise
