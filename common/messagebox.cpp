#include "common/messagebox.h"

#include <cstdio>

void ShowErrorMessage(const char* text) { MessageBoxA(nullptr, text, "Error", MB_OK | MB_ICONERROR); }

std::string DescribeError(HRESULT hr) {
  char text[512];
  DWORD length = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                static_cast<DWORD>(hr), 0, text, sizeof text, nullptr);
  while (length > 0 && (text[length - 1] == '\n' || text[length - 1] == '\r')) --length;
  if (length > 0) return {text, length};
  std::snprintf(text, sizeof text, "0x%08lx", static_cast<unsigned long>(hr));
  return text;
}
