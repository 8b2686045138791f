#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

/// The transform exists on Windows only.
#ifdef _WIN32
inline constexpr bool kHasTransform = true;
#else
inline constexpr bool kHasTransform = false;
#endif

bool IsTerminal(std::FILE* stream);

/// The width of a terminal in characters; 0 if unknown.
std::size_t TerminalColumns(std::FILE* terminal);

/// Whether the path leads to the file that the stream reads or writes. False for devices, which may be
/// shared.
bool IsFileOf(const std::string& path, std::FILE* stream);

enum class Transfer { Read, Write };

/// Call this after a failed transfer. If the transfer failed because a non-blocking stream was not ready,
/// waits until the stream is ready and returns true.
bool AwaitTransfer(std::FILE* stream, Transfer transfer);

/// On Windows, switches the standard streams to binary mode. On Linux, makes writes to a closed pipe or
/// beyond the file size limit fail instead of ending the program, and opens /dev/null for closed standard
/// streams: otherwise a file that is opened later would take their descriptors.
void PrepareStandardStreams();
