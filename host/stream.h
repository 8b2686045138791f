#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <span>
#include <string>

// Reads and writes streams, which may be non-blocking pipes.

/// Turns off the stream's own buffer, which would only copy whole frames once more.
void DisableBuffering(std::FILE* stream);

/// Fills `bytes` and returns the number of bytes read. They are fewer if the stream ends or fails; `ferror`
/// tells which.
std::size_t ReadBytes(std::FILE* stream, std::span<std::uint8_t> bytes);

/// Writes all bytes. Returns false when that fails; `errno` says why.
bool WriteBytes(std::FILE* stream, std::span<const std::byte> bytes);

std::string SystemReason(int error);
