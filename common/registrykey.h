#pragma once

#include <windows.h>

#include <cstddef>
#include <span>

/// An open registry key, closed with the object. Functions give Win32 error codes.
class CRegistryKey {
 public:
  /// `view` holds the KEY_WOW64_… bits that every access uses. With a transaction, keys are opened and
  /// created in it where the system can; the transaction stays the caller's.
  explicit CRegistryKey(REGSAM view = 0, HANDLE transaction = nullptr)
      : m_view(view), m_transaction(transaction) {}
  ~CRegistryKey() { Close(); }
  CRegistryKey(const CRegistryKey&) = delete;
  CRegistryKey& operator=(const CRegistryKey&) = delete;

  LSTATUS Open(HKEY parent, const char* name, REGSAM access);
  LSTATUS Create(HKEY parent, const char* name, REGSAM access);
  void Close();

  /// To open keys below; null when none is open.
  HKEY Handle() const { return m_key; }

  /// Type and size in bytes of a value.
  LSTATUS QueryType(const char* name, DWORD* type, DWORD* size) const;
  /// The value's bytes; fails when it does not fit the buffer. `size` receives how many there are.
  LSTATUS QueryData(const char* name, std::span<std::byte> buffer, DWORD* size) const;
  LSTATUS SetData(const char* name, DWORD type, std::span<const std::byte> data) const;
  /// Writes a REG_SZ with its terminating null; ERROR_INVALID_PARAMETER for a null text.
  LSTATUS SetText(const char* name, const char* text) const;

 private:
  HKEY m_key = nullptr;
  REGSAM m_view;
  HANDLE m_transaction;
};
