#pragma once

#include <cstdio>
#include <span>

/// Runs the program `stabilize`. Help and version go to `output`, messages and progress to `messages`.
/// Returns the exit code: 0 done, 1 the work failed, 2 wrong usage, 130 interrupted.
int RunStabilize(std::span<const char* const> arguments, std::FILE* output, std::FILE* messages);
