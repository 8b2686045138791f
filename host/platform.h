#pragma once

#include <cstdio>

/// The transform is a Windows module.
#ifdef _WIN32
inline constexpr bool kHasTransform = true;
#else
inline constexpr bool kHasTransform = false;
#endif

bool IsTerminal(std::FILE* stream);

/// Makes standard input and output carry plain bytes, a closed output pipe an error instead of the program's
/// end, and a standard stream that is closed an empty one, so that no file opened later takes its place.
void PrepareStandardStreams();
