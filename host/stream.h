#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <span>
#include <string>

// Reads and writes a stream whose other end may be a pipe that does not block.

/// Turns the stream's own buffer off: it would only copy whole frames once more.
void DisableBuffering(std::FILE* stream);

/// Fills `bytes` and returns how many there were: fewer where the stream ends or, as `ferror` tells, fails.
std::size_t ReadBytes(std::FILE* stream, std::span<std::uint8_t> bytes);

/// Returns false when the stream takes no more; `errno` says why.
bool WriteBytes(std::FILE* stream, std::span<const std::byte> bytes);

std::string SystemReason(int error);
