#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "host/options.h"

// A display matrix tells how a picture is shown: rotated by quarter turns, mirrored, or both.

using DisplayMatrix = std::array<std::int32_t, 9>;

/// The filters that make the shown picture from the stored one; empty when both are the same.
std::string TurnFilters(const DisplayMatrix& matrix);

/// True when stored rows are shown as columns.
bool SwapsSides(const DisplayMatrix& matrix);

/// Converts region and margins, given for the shown picture, to those of the stored picture.
Options AsStored(Options options, const DisplayMatrix& matrix, int storedWidth, int storedHeight);
