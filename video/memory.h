#pragma once

#include <cstdint>

/// An upper bound of the memory that the process can use, in bytes: the least of what the machine has
/// available, the container's limit and the process's own limit.
std::int64_t AvailableMemory();
