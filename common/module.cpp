#include "common/module.h"

#include <cstddef>
#include <memory>

namespace {

template <class Text, class Function>
HRESULT QueryModulePath(HMODULE module, Text* path, Function getFileName) {
  path->resize(MAX_PATH);
  const DWORD length = getFileName(module, path->data(), MAX_PATH);
  // A path that fills the buffer has been cut.
  const bool isWhole = length > 0 && length < MAX_PATH;
  path->resize(isWhole ? length : 0);
  return isWhole ? S_OK : E_FAIL;
}

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
