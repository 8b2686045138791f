#include "common/registrykey.h"

#include <cstring>

namespace {

using CreateTransacted = LSTATUS(WINAPI*)(HKEY, LPCSTR, DWORD, LPSTR, DWORD, REGSAM,
                                          const SECURITY_ATTRIBUTES*, PHKEY, LPDWORD, HANDLE, PVOID);
using OpenTransacted = LSTATUS(WINAPI*)(HKEY, LPCSTR, DWORD, REGSAM, PHKEY, HANDLE, PVOID);

/// Older systems lack the transacted functions.
template <class Function>
Function FindTransactedFunction(const char* name) {
  const HMODULE module = GetModuleHandleA("Advapi32.dll");
  return module ? reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name))) : nullptr;
}

}  // namespace

LSTATUS CRegistryKey::Open(HKEY parent, const char* name, REGSAM access) {
  Close();
  if (!m_transaction) return RegOpenKeyExA(parent, name, 0, access | m_view, &m_key);
  const auto open = FindTransactedFunction<OpenTransacted>("RegOpenKeyTransactedA");
  return open ? open(parent, name, 0, access | m_view, &m_key, m_transaction, nullptr)
              : ERROR_INVALID_FUNCTION;
}

LSTATUS CRegistryKey::Create(HKEY parent, const char* name, REGSAM access) {
  Close();
  if (!m_transaction)
    return RegCreateKeyExA(parent, name, 0, nullptr, 0, access | m_view, nullptr, &m_key, nullptr);
  const auto create = FindTransactedFunction<CreateTransacted>("RegCreateKeyTransactedA");
  return create ? create(parent, name, 0, nullptr, 0, access | m_view, nullptr, &m_key, nullptr,
                         m_transaction, nullptr)
                : ERROR_INVALID_FUNCTION;
}

void CRegistryKey::Close() {
  if (m_key) RegCloseKey(m_key);
  m_key = nullptr;
}

LSTATUS CRegistryKey::QueryType(const char* name, DWORD* type, DWORD* size) const {
  return RegQueryValueExA(m_key, name, nullptr, type, nullptr, size);
}

LSTATUS CRegistryKey::QueryData(const char* name, std::span<std::byte> buffer, DWORD* size) const {
  *size = static_cast<DWORD>(buffer.size());
  return RegQueryValueExA(m_key, name, nullptr, nullptr, reinterpret_cast<BYTE*>(buffer.data()), size);
}

LSTATUS CRegistryKey::SetData(const char* name, DWORD type, std::span<const std::byte> data) const {
  return RegSetValueExA(m_key, name, 0, type, reinterpret_cast<const BYTE*>(data.data()),
                        static_cast<DWORD>(data.size()));
}

LSTATUS CRegistryKey::SetText(const char* name, const char* text) const {
  if (!text) return ERROR_INVALID_PARAMETER;
  return SetData(name, REG_SZ, std::as_bytes(std::span(text, std::strlen(text) + 1)));
}
