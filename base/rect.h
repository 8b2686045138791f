#pragma once

#include <cstdint>

/// A rectangle, in a top-down picture unless stated otherwise; right and bottom are exclusive.
struct Rect {
  std::int32_t left, top, right, bottom;
};
