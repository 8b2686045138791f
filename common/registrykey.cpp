#include "common/registrykey.h"

#include <cstring>

LSTATUS CRegistryKey::Create(HKEY parent, const char* name, REGSAM access) {
  Close();
  return RegCreateKeyExA(parent, name, 0, nullptr, 0, access, nullptr, &m_key, nullptr);
}

void CRegistryKey::Close() {
  if (m_key) RegCloseKey(m_key);
  m_key = nullptr;
}

LSTATUS CRegistryKey::SetData(const char* name, DWORD type, std::span<const std::byte> data) const {
  return RegSetValueExA(m_key, name, 0, type, reinterpret_cast<const BYTE*>(data.data()),
                        static_cast<DWORD>(data.size()));
}

LSTATUS CRegistryKey::SetText(const char* name, const char* text) const {
  if (!text) return ERROR_INVALID_PARAMETER;
  return SetData(name, REG_SZ, std::as_bytes(std::span(text, std::strlen(text) + 1)));
}

std::optional<std::vector<std::byte>> ReadRegistryValue(HKEY parent, const char* key, const char* name,
                                                        DWORD typeFlag) {
  const DWORD flags = typeFlag | RRF_NOEXPAND;
  DWORD size = 0;
  if (RegGetValueA(parent, key, name, flags, nullptr, nullptr, &size) != ERROR_SUCCESS) return std::nullopt;
  std::vector<std::byte> bytes(size + 1);  // an empty value needs an address, too
  if (RegGetValueA(parent, key, name, flags, nullptr, bytes.data(), &size) != ERROR_SUCCESS)
    return std::nullopt;
  bytes.resize(size);
  return bytes;
}
