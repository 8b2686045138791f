#pragma once

#include <cstdio>
#include <cstdlib>

#include "support/choices.h"

inline void Require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

/// What a target defines: does what the bytes say, and ends the program where the outcome is wrong. A target
/// makes good material by itself. The bytes choose among it and damage it, so any bytes lead deep into the
/// code.
void Live(Choices& choices);

/// libFuzzer's entry. A target is one source.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Choices choices(std::span(data, size));
  Live(choices);
  return 0;
}
