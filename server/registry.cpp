#include "server/registry.h"

#include <array>
#include <cstdio>
#include <mfapi.h>
#include <mftransform.h>
#include <oleauto.h>
#include <optional>
#include <string>

#include "common/comboundary.h"
#include "common/debugreport.h"
#include "common/module.h"
#include "common/registrykey.h"
#include "common/typelibrary.h"
#include "mft/mft_vstabilize.h"

namespace {

constexpr GUID kFamilyCategory = {
    0x1E6FFA21, 0x24D8, 0x4B28, {0xBF, 0xD0, 0x98, 0xD8, 0x3C, 0x69, 0x82, 0xC3}};
constexpr GUID kTypeLibrary = {0xE2B6EDDB, 0x38C5, 0x11D5, {0x91, 0xF6, 0x00, 0x10, 0x4B, 0xDB, 0x8F, 0xF9}};

struct RegisteredClass {
  const GUID& clsid;
  const char* name;
};

constexpr RegisteredClass kClasses[] = {
    {CLSID_VKFVStabilize, "Varkon MF Video Stabilizer Transform"},
    {CLSID_VKFVStabilizePropertyPage, "Varkon MF Video Stabilizer Transform Properties"},
    {CLSID_VKFVStabilizeAbout, "Varkon MF Video Stabilizer Transform About"},
};

std::string ClassKeyName(const GUID& clsid) {
  std::array<wchar_t, 39> text = {};
  StringFromGUID2(clsid, text.data(), static_cast<int>(text.size()));
  std::array<char, 64> name = {};
  std::snprintf(name.data(), name.size(), "CLSID\\%ls", text.data());
  return name.data();
}

HRESULT RegisterClassEntry(const RegisteredClass& entry, const std::string& modulePath) {
  CRegistryKey key, server;
  LSTATUS status = key.Create(HKEY_CLASSES_ROOT, ClassKeyName(entry.clsid).c_str(), KEY_ALL_ACCESS);
  if (status == ERROR_SUCCESS) status = key.SetText(nullptr, entry.name);
  if (status == ERROR_SUCCESS) status = server.Create(key.Handle(), "InprocServer32", KEY_ALL_ACCESS);
  if (status == ERROR_SUCCESS) status = server.SetText(nullptr, modulePath.c_str());
  if (status == ERROR_SUCCESS) status = server.SetText("ThreadingModel", "Both");
  return HRESULT_FROM_WIN32(status);
}

HRESULT RegisterTransform() {
  wchar_t name[] = L"Varkon MF Video Stabilizer Transform";
  for (const GUID& category : {kFamilyCategory, MFT_CATEGORY_VIDEO_EFFECT}) {
    // Without media types: hosts find the transform by its category alone.
    const HRESULT hr = MFTRegister(CLSID_VKFVStabilize, category, name, 0, 0, nullptr, 0, nullptr, nullptr);
    if (FAILED(hr)) return hr;
  }
  return S_OK;
}

/// The file registered as the transform's server, whether it exists or not.
std::optional<std::string> RegisteredServer() {
  const std::string key = ClassKeyName(CLSID_VKFVStabilize) + "\\InprocServer32";
  const auto path = ReadRegistryValue(HKEY_CLASSES_ROOT, key.c_str(), nullptr, RRF_RT_REG_SZ);
  if (!path) return std::nullopt;
  return reinterpret_cast<const char*>(path->data());
}

/// The file registered as the transform's server if it exists and is not `modulePath`.
std::optional<std::string> OtherServer(const std::string& modulePath) {
  std::optional<std::string> registered = RegisteredServer();
  if (registered && IsFile(registered->c_str()) && !IsSameFile(registered->c_str(), modulePath.c_str()))
    return registered;
  return std::nullopt;
}

bool IsNewer(const std::string& file, const std::string& than) {
  const std::optional<std::uint64_t> version = ReadFileVersion(file.c_str()),
                                     ours = ReadFileVersion(than.c_str());
  return version && ours && *version > *ours;
}

}  // namespace

HRESULT RegisterModule(HMODULE module) {
  DebugAssert(module != nullptr, "g_hModule != NULL", "registry");
  return ComBoundary([&] {
    std::string path;
    HRESULT hr = GetModulePath(module, &path);
    if (FAILED(hr)) return hr;
    const std::optional<std::string> other = OtherServer(path);
    if (other && IsNewer(*other, path)) return S_OK;

    for (const RegisteredClass& entry : kClasses) {
      hr = RegisterClassEntry(entry, path);
      if (FAILED(hr)) return hr;
    }
    hr = RegisterTransform();
    if (FAILED(hr)) return hr;
    // A failure is ignored: the module loads the library from its own resources, so only tools that look up
    // registered libraries need this.
    RegisterModuleTypeLibrary(module, true);
    return S_OK;
  });
}

HRESULT UnregisterModule(HMODULE module) {
  return ComBoundary([&] {
    std::string path;
    // A module whose path is unknown has not been registered, because registration needs the path, too.
    if (FAILED(GetModulePath(module, &path)) || OtherServer(path)) return S_OK;
    MFTUnregister(CLSID_VKFVStabilize);
    for (const RegisteredClass& entry : kClasses)
      RegDeleteTreeA(HKEY_CLASSES_ROOT, ClassKeyName(entry.clsid).c_str());
    // This module registers the library as US English. Other tools may have registered it without a language.
    for (const LCID locale : {LCID{0x409}, LCID{0}}) UnRegisterTypeLib(kTypeLibrary, 1, 0, locale, SYS_WIN64);
    return S_OK;
  });
}
