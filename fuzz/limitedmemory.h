#pragma once

#include <cstdint>

/// While it lives, the program may allocate only so many bytes, whatever it frees. For one thread.
class LimitedMemory {
 public:
  explicit LimitedMemory(std::int64_t bytes);
  ~LimitedMemory();
  LimitedMemory(const LimitedMemory&) = delete;
  LimitedMemory& operator=(const LimitedMemory&) = delete;
};
