#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "host/options.h"

// A display matrix tells how a picture is shown: turned by quarters, mirrored, or both.

using DisplayMatrix = std::array<std::int32_t, 9>;

/// Filters that turn stored pictures as they are shown; empty where none are needed.
std::string TurnFilters(const DisplayMatrix& matrix);

/// True where stored rows are shown as columns.
bool SwapsSides(const DisplayMatrix& matrix);

/// Region and margins of a picture as it is shown become those of the picture as it is stored.
Options AsStored(Options options, const DisplayMatrix& matrix, int storedWidth, int storedHeight);
