#pragma once

#include "precise/loops.h"

namespace precise {

/// The warps of rows that read the source nearly as it lies: not made smaller, and turned by a degree or two
/// at most. False where the rows are none of these, or these loops cannot hold what they read; some of their
/// columns may have been written then.
bool WarpBlocksBilinear(const AlikePlanes& planes, const WarpedRow* rows, std::int32_t count);
bool WarpBlocksBicubic(const AlikePlanes& planes, const WarpedRow* rows, std::int32_t count);

}  // namespace precise
