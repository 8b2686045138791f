#include "common/debugreport.h"

#include <windows.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace {

constexpr DebugReporter kDebuggerReporter = {[](const char* condition, const char* file) {
                                               char text[512];
                                               std::snprintf(text, sizeof text,
                                                             "assertion failed in %s: %s\n", file, condition);
                                               OutputDebugStringA(text);
                                             },
                                             [](const char* text) { OutputDebugStringA(text); }};

std::atomic<const DebugReporter*> g_pReporter = &kDebuggerReporter;

}  // namespace

const DebugReporter* SetDebugReporter(const DebugReporter* reporter) {
  return g_pReporter.exchange(reporter);
}

void DebugAssert(bool holds, const char* condition, const char* file) {
  if (!holds) g_pReporter.load()->assertion(condition, file);
}

void DebugTrace(const char* format, ...) {
  char text[512];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  g_pReporter.load()->trace(text);
}
