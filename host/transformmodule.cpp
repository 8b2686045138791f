#include "host/transformmodule.h"

#include <cstdio>
#include <mfapi.h>

#include "automation/vkvstabilize.h"
#include "host/workerror.h"

using Microsoft::WRL::ComPtr;

namespace {

constexpr wchar_t kModuleName[] = L"vkfvstabilize.dll";
constexpr char kWayOut[] = "use --registered for a registered transform, or --engine kernel for none";

std::wstring ModulePath() {
  std::wstring path(32768, L'\0');
  path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
  return path.substr(0, path.find_last_of(L"\\/") + 1) + kModuleName;
}

std::string Narrow(const std::wstring& text) {
  std::string narrow(text.size() * 3, '\0');
  const int length = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                         narrow.data(), static_cast<int>(narrow.size()), nullptr, nullptr);
  narrow.resize(static_cast<std::size_t>(length));
  return narrow;
}

}  // namespace

void Check(HRESULT hr, const std::string& what) {
  if (SUCCEEDED(hr)) return;
  char code[16];
  std::snprintf(code, sizeof code, "0x%08lX", static_cast<unsigned long>(hr));
  throw WorkError(what + " (error " + code + ')');
}

ComSession::ComSession(DWORD concurrency) {
  Check(CoInitializeEx(nullptr, concurrency), "cannot start COM");
  const HRESULT hr = MFStartup(MF_VERSION, MFSTARTUP_LITE);
  if (FAILED(hr)) CoUninitialize();
  Check(hr, "cannot start Media Foundation");
}

ComSession::~ComSession() {
  MFShutdown();
  CoUninitialize();
}

TransformModule::TransformModule(bool registered) {
  if (registered) return;
  const std::wstring path = ModulePath();
  m_library = LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
  // Read now, because any other system call may change the last error.
  const HRESULT hr = m_library ? S_OK : HRESULT_FROM_WIN32(GetLastError());
  Check(hr, "cannot load " + Narrow(path) + "; " + kWayOut);
}

TransformModule::~TransformModule() {
  for (const DWORD cookie : m_classCookies) CoRevokeClassObject(cookie);
  if (m_library) FreeLibrary(m_library);
}

ComPtr<IClassFactory> TransformModule::ClassObject(const CLSID& clsid) const {
  const auto getClassObject = reinterpret_cast<decltype(&DllGetClassObject)>(
      reinterpret_cast<void*>(GetProcAddress(m_library, "DllGetClassObject")));
  ComPtr<IClassFactory> factory;
  Check(getClassObject ? getClassObject(clsid, IID_PPV_ARGS(&factory)) : CLASS_E_CLASSNOTAVAILABLE,
        std::string("the module beside the program lacks a class; ") + kWayOut);
  return factory;
}

ComPtr<IMFTransform> TransformModule::CreateTransform() const {
  constexpr CLSID kTransform = __uuidof(VKFVStabilize);
  ComPtr<IMFTransform> transform;
  if (m_library)
    Check(ClassObject(kTransform)->CreateInstance(nullptr, IID_PPV_ARGS(&transform)),
          "cannot create the transform");
  else
    Check(CoCreateInstance(kTransform, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&transform)),
          "cannot create the registered transform; register it by regsvr32 vkfvstabilize.dll");
  return transform;
}

void TransformModule::OfferPages(const CAUUID& pages) {
  if (!m_library) return;  // the pages are registered as the transform is
  for (ULONG i = 0; i < pages.cElems; ++i) {
    DWORD cookie = 0;
    Check(CoRegisterClassObject(pages.pElems[i], ClassObject(pages.pElems[i]).Get(), CLSCTX_INPROC_SERVER,
                                REGCLS_MULTIPLEUSE, &cookie),
          "cannot offer the property pages");
    m_classCookies.push_back(cookie);
  }
}
