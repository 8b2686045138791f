#include "common/typelibrary.h"

#include <oleauto.h>
#include <string>
#include <wrl/client.h>

#include "common/comboundary.h"
#include "common/debugreport.h"
#include "common/messagebox.h"
#include "common/module.h"

HRESULT LoadModuleTypeLibrary(HMODULE module, ITypeLib** library) {
  return ComBoundary([&] {
    std::wstring path;
    const HRESULT hr = GetModulePath(module, &path);
    return FAILED(hr) ? hr : LoadTypeLibEx(path.c_str(), REGKIND_NONE, library);
  });
}

HRESULT RegisterModuleTypeLibrary(HMODULE module, bool showMessages) {
  return ComBoundary([&] {
    std::wstring path;
    std::string name;
    HRESULT hr = GetModulePath(module, &path);
    if (FAILED(hr)) return hr;
    GetModulePath(module, &name);  // for messages only

    Microsoft::WRL::ComPtr<ITypeLib> library;
    hr = LoadTypeLib(path.c_str(), &library);
    if (FAILED(hr)) {
      DebugTrace("\nRegisterModuleTypeLibrary: LoadTypeLib failed 0x%08x", static_cast<unsigned>(hr));
      if (showMessages)
        ShowErrorMessage(("Failed " + DescribeError(hr) + " to register type library: " + name).c_str());
      return hr;
    }
    hr = RegisterTypeLib(library.Get(), path.data(), nullptr);
    if (FAILED(hr)) {
      DebugTrace("\nRegisterModuleTypeLibrary: RegisterTypeLib failed 0x%08x", static_cast<unsigned>(hr));
      if (showMessages) ShowErrorMessage(("Failed to register type library: " + name).c_str());
    }
    return hr;
  });
}
