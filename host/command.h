#pragma once

#include <cstdio>
#include <span>

/// The program `vstabilize` without its process: parses the arguments after the program's name, and
/// stabilizes the video in `input` to `output`. Messages go to `messages`. Returns the exit code: 0 done,
/// 1 the work failed, 2 wrong usage.
int RunCommand(std::span<const char* const> arguments, std::FILE* input, std::FILE* output,
               std::FILE* messages);
