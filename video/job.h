#pragma once

#include <cstdio>
#include <string>

#include "host/options.h"
#include "video/notes.h"

/// Stabilizes one file into another. The progress bar goes to `terminal`; null: none. Throws UsageError,
/// WorkError, Interruption and std::bad_alloc, and then leaves no output.
void StabilizeFile(const Options& options, const std::string& inputName, const std::string& outputName,
                   const Notes& notes, std::FILE* terminal);
