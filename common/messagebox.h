#pragma once

#include <windows.h>

#include <string>

/// Shows an error to the person at the screen.
void ShowErrorMessage(const char* text);

/// The system's text for a result code, without its line end, or the code's digits. Throws std::bad_alloc.
std::string DescribeError(HRESULT hr);
