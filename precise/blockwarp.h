#pragma once

#include "precise/loops.h"

namespace precise {

/// Warps, as `WarpRows`, of rows that are nearly parallel to the source's rows and at its scale or magnified.
/// False where the rows are not, where samples have more than 14 bits, or where the rows read too large a
/// part of the source or too far off it. Some of the columns may already be written in that case.
bool WarpBlocksBilinear(const CositedPlanes& planes, const WarpedRow* rows, std::int32_t count);
bool WarpBlocksBicubic(const CositedPlanes& planes, const WarpedRow* rows, std::int32_t count);

}  // namespace precise
