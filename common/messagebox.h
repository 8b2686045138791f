#pragma once

#include <windows.h>

#include <string>

/// Shows an error in a message box.
void ShowErrorMessage(const char* text);

/// The system's text for a result code, without a line end; the code in hexadecimal when there is no text.
/// Throws std::bad_alloc.
std::string DescribeError(HRESULT hr);
