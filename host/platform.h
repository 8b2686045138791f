#pragma once

#include <cstdio>

bool IsTerminal(std::FILE* stream);

/// Makes standard input and output carry plain bytes, and a closed output pipe an error instead of the
/// program's end.
void PrepareStandardStreams();
