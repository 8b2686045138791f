#pragma once

#include <windows.h>

#include <cstdint>
#include <optional>
#include <string>

/// The program or library that contains this code.
HMODULE CurrentModule();

/// Full path of a module's file. E_FAIL when it does not fit MAX_PATH. Throws std::bad_alloc.
HRESULT GetModulePath(HMODULE module, std::wstring* path);
HRESULT GetModulePath(HMODULE module, std::string* path);

/// Path of the help file beside a module: the module's name with the extension .chm. Empty when there is no
/// such file. Throws std::bad_alloc.
std::wstring FindHelpFile(HMODULE module);

bool IsFile(const char* path);

/// Whether two paths lead to the same file. False when either file does not open.
bool IsSameFile(const char* first, const char* second);

/// The version in a file's resources, 16 bits for each of its four parts, the first part in the highest bits.
/// Empty when the file has none. Throws std::bad_alloc.
std::optional<std::uint64_t> ReadFileVersion(const char* path);
