#pragma once

#include <exception>

/// A signal asked the program to end.
struct Interruption : std::exception {
  const char* what() const noexcept override { return "interrupted"; }
};

/// From now on SIGINT, SIGTERM and SIGHUP do not end the process; they make IsInterrupted true.
void CatchSignals();

bool IsInterrupted();

/// Throws Interruption after such a signal.
void CheckInterruption();
