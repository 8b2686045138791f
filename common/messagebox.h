#pragma once

#include <windows.h>

#include <string>

using MessageBoxFunction = int(WINAPI*)(HWND owner, const char* text, const char* caption, UINT style);

/// Sets the function that shows messages, at first the system's message box, and returns the one before.
MessageBoxFunction SetMessageBox(MessageBoxFunction function);

/// Shows an error to the person at the screen.
void ShowErrorMessage(const char* text);

/// The system's text for a result code, without its line end, or the code's digits. Throws std::bad_alloc.
std::string DescribeError(HRESULT hr);
