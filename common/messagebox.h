#pragma once

#include <windows.h>

#include <string>

using MessageBoxFunction = int(WINAPI*)(HWND owner, const char* text, const char* caption, UINT style);

/// Replaces the function that shows messages and returns the previous one. The initial one is the system's
/// message box.
MessageBoxFunction SetMessageBox(MessageBoxFunction function);

/// Shows an error in a message box.
void ShowErrorMessage(const char* text);

/// The system's text for a result code, without a line end; the code in hexadecimal when there is no text.
/// Throws std::bad_alloc.
std::string DescribeError(HRESULT hr);
