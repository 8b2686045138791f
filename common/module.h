#pragma once

#include <windows.h>

#include <cstdint>
#include <optional>
#include <string>

/// The module, program or library, that this code is part of.
HMODULE CurrentModule();

/// Full path of a module's file. E_FAIL when it does not fit MAX_PATH. Throws std::bad_alloc.
HRESULT GetModulePath(HMODULE module, std::wstring* path);
HRESULT GetModulePath(HMODULE module, std::string* path);

/// Path of the help file that stands beside a module under its name; empty when there is none. Throws
/// std::bad_alloc.
std::wstring FindHelpFile(HMODULE module);

bool IsFile(const char* path);

/// Whether two paths lead to the same file; not when one of them leads nowhere.
bool IsSameFile(const char* first, const char* second);

/// The fixed version of a file, its four parts from the highest 16 bits down; none when the file tells no
/// version.
std::optional<std::uint64_t> ReadFileVersion(const char* path);
