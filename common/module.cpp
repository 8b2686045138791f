#include "common/module.h"

#include <array>
#include <cstddef>
#include <memory>

namespace {

template <class Text, class Function>
HRESULT QueryModulePath(HMODULE module, Text* path, Function getFileName) {
  path->resize(MAX_PATH);
  const DWORD length = getFileName(module, path->data(), MAX_PATH);
  // A path that fills the buffer was truncated.
  const bool isWhole = length > 0 && length < MAX_PATH;
  path->resize(isWhole ? length : 0);
  return isWhole ? S_OK : E_FAIL;
}

using FileIdentity = std::array<DWORD, 3>;

/// A file that is opened only to learn its identity.
class IdentifiedFile {
 public:
  explicit IdentifiedFile(const char* path)
      : m_file(CreateFileA(path, 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                           OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr)) {}
  ~IdentifiedFile() {
    if (m_file != INVALID_HANDLE_VALUE) CloseHandle(m_file);
  }
  IdentifiedFile(const IdentifiedFile&) = delete;
  IdentifiedFile& operator=(const IdentifiedFile&) = delete;

  std::optional<FileIdentity> Identity() const {
    BY_HANDLE_FILE_INFORMATION info;
    if (m_file == INVALID_HANDLE_VALUE || !GetFileInformationByHandle(m_file, &info)) return std::nullopt;
    return FileIdentity{info.dwVolumeSerialNumber, info.nFileIndexHigh, info.nFileIndexLow};
  }

 private:
  HANDLE m_file;
};

}  // namespace

HMODULE CurrentModule() {
  static const char anchor = 0;
  HMODULE module = nullptr;
  GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                     &anchor, &module);
  return module;
}

HRESULT GetModulePath(HMODULE module, std::wstring* path) {
  return QueryModulePath(module, path, GetModuleFileNameW);
}

HRESULT GetModulePath(HMODULE module, std::string* path) {
  return QueryModulePath(module, path, GetModuleFileNameA);
}

std::wstring FindHelpFile(HMODULE module) {
  std::wstring path;
  if (FAILED(GetModulePath(module, &path))) return {};
  path = path.substr(0, path.find_last_of(L'.')) + L".chm";
  return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES ? path : std::wstring();
}

bool IsFile(const char* path) {
  const DWORD attributes = GetFileAttributesA(path);
  return attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY);
}

bool IsSameFile(const char* first, const char* second) {
  // Both files stay open during the comparison: the system may reuse the identity of a closed file.
  const IdentifiedFile a(first), b(second);
  const std::optional<FileIdentity> identity = a.Identity();
  return identity && identity == b.Identity();
}

std::optional<std::uint64_t> ReadFileVersion(const char* path) {
  DWORD unused = 0;
  const DWORD size = GetFileVersionInfoSizeA(path, &unused);
  if (size == 0) return std::nullopt;
  const auto info = std::make_unique<std::byte[]>(size);
  VS_FIXEDFILEINFO* fixed = nullptr;
  UINT fixedSize = 0;
  if (!GetFileVersionInfoA(path, 0, size, info.get()) ||
      !VerQueryValueA(info.get(), "\\", reinterpret_cast<void**>(&fixed), &fixedSize) ||
      fixedSize < sizeof *fixed)
    return std::nullopt;
  return std::uint64_t{fixed->dwFileVersionMS} << 32 | fixed->dwFileVersionLS;
}
