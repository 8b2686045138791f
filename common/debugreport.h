#pragma once

/// Where failed consistency checks and traces go. Both functions may be called from any thread.
struct DebugReporter {
  void (*assertion)(const char* condition, const char* file);
  void (*trace)(const char* text);
};

/// Replaces the reporter, which at first writes to the debugger, and returns the one before. `reporter` must
/// outlive its use.
const DebugReporter* SetDebugReporter(const DebugReporter* reporter);

/// Reports the text of a condition that does not hold, with the source file's name. The program goes on.
void DebugAssert(bool holds, const char* condition, const char* file);

/// Reports a line of text, formatted as by printf.
[[gnu::format(printf, 1, 2)]] void DebugTrace(const char* format, ...);
