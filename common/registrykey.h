#pragma once

#include <windows.h>

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

/// A registry key for writing. Closed by the destructor. Functions return Win32 error codes.
class CRegistryKey {
 public:
  CRegistryKey() = default;
  ~CRegistryKey() { Close(); }
  CRegistryKey(const CRegistryKey&) = delete;
  CRegistryKey& operator=(const CRegistryKey&) = delete;

  LSTATUS Create(HKEY parent, const char* name, REGSAM access);
  /// The handle, for opening subkeys. Null when no key is open.
  HKEY Handle() const { return m_key; }

  LSTATUS SetData(const char* name, DWORD type, std::span<const std::byte> data) const;
  /// Writes a REG_SZ with its terminating null; ERROR_INVALID_PARAMETER for a null text.
  LSTATUS SetText(const char* name, const char* text) const;

 private:
  void Close();

  HKEY m_key = nullptr;
};

/// The bytes of the value `name` in the subkey `key` of `parent`. Texts end with a null. Empty when there is
/// no such value or its type is not `typeFlag` (RRF_RT_…). Throws std::bad_alloc.
std::optional<std::vector<std::byte>> ReadRegistryValue(HKEY parent, const char* key, const char* name,
                                                        DWORD typeFlag);
