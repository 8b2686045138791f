#pragma once

#include <cstdint>

/// How often the program has allocated memory so far.
std::int64_t AllocationCount();

/// While it lives, its thread may allocate only so many bytes, whatever it frees.
class LimitedMemory {
 public:
  explicit LimitedMemory(std::int64_t bytes);
  ~LimitedMemory();
  LimitedMemory(const LimitedMemory&) = delete;
  LimitedMemory& operator=(const LimitedMemory&) = delete;
};
