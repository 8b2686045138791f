#pragma once

/// Receives failed consistency checks and traces. Any thread may call either function.
struct DebugReporter {
  void (*assertion)(const char* condition, const char* file);
  void (*trace)(const char* text);
};

/// Replaces the reporter and returns the previous one. The initial reporter writes to the debugger.
/// `reporter` must live until it is replaced.
const DebugReporter* SetDebugReporter(const DebugReporter* reporter);

/// Reports `condition` and the source file's name unless the condition holds. The program goes on.
void DebugAssert(bool holds, const char* condition, const char* file);

/// Reports a line of text, formatted as by printf.
[[gnu::format(printf, 1, 2)]] void DebugTrace(const char* format, ...);
