#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

/// The transform is a Windows module.
#ifdef _WIN32
inline constexpr bool kHasTransform = true;
#else
inline constexpr bool kHasTransform = false;
#endif

bool IsTerminal(std::FILE* stream);

/// How wide a terminal is, in characters; 0: unknown.
std::size_t TerminalColumns(std::FILE* terminal);

/// True when the path leads to the very file that the stream reads or writes. A device is nobody's file.
bool IsFileOf(const std::string& path, std::FILE* stream);

enum class Transfer { Read, Write };

/// To be called after a failed transfer. If it failed only because the stream does not block, waits until the
/// stream can go on and returns true.
bool AwaitTransfer(std::FILE* stream, Transfer transfer);

/// Prepares the standard streams: they carry plain bytes; writing to a closed pipe fails instead of ending
/// the program; a closed stream becomes an empty one, so that no file opened later takes its number.
void PrepareStandardStreams();
