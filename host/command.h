#pragma once

#include <cstdio>
#include <span>

/// Runs the command `vstabilize`: parses the arguments after the program's name, and stabilizes video from
/// `input` to `output`. Messages go to `messages`. Returns the exit code: 0 done, 1 the work failed, 2 wrong
/// usage.
int RunCommand(std::span<const char* const> arguments, std::FILE* input, std::FILE* output,
               std::FILE* messages);
