#pragma once

#include <cstdint>

/// Bytes that the machine, the container and the process's own limit leave, as far as they tell: it cannot be
/// more.
std::int64_t AvailableMemory();
