#include <windows.h>

#include <cstddef>
#include <mfapi.h>
#include <mferror.h>
#include <utility>
#include <vector>
#include <wrl/client.h>

#include "common/comboundary.h"
#include "common/registrykey.h"
#include "engine/settingskeys.h"
#include "engine/vkvstabilizeimpl.h"

using Microsoft::WRL::ComPtr;

// Saves and loads the settings, and resets them to their defaults.

namespace {

constexpr char kKeyName[] = "SOFTWARE\\Varkon Systems, Inc.\\MF\\Transforms\\VStabilize";
constexpr char kValueName[] = "Attributes";

}  // namespace

STDMETHODIMP CVKVStabilizeImpl::ResetToDefaults() { return Store() ? WriteDefaults(Store()) : CreateStore(); }

HRESULT CVKVStabilizeImpl::WriteDefaults(IMFAttributes* store) {
  store->LockStore();
  for (const SettingDefault& setting : kSettingDefaults) {
    const HRESULT hr = store->SetUINT32(setting.key, setting.value);
    // The store stays locked (kept for compatibility): frames wait, as the settings are only partly reset.
    if (FAILED(hr)) return hr;
  }
  store->UnlockStore();
  return S_OK;
}

STDMETHODIMP CVKVStabilizeImpl::LoadAttributes() {
  return ComBoundary([&] {
    HRESULT hr = CreateStore();
    if (FAILED(hr)) return hr;

    const auto blob = ReadRegistryValue(HKEY_CURRENT_USER, kKeyName, kValueName, RRF_RT_REG_BINARY);
    if (!blob) return S_OK;

    // Reads do not lock the store. They would find missing items in it while it is filled.
    ComPtr<IMFAttributes> loaded;
    hr = m_createAttributes(&loaded, static_cast<UINT32>(kSettingDefaults.size()));
    if (FAILED(hr)) return hr;
    hr = MFInitAttributesFromBlob(loaded.Get(), reinterpret_cast<const UINT8*>(blob->data()),
                                  static_cast<UINT32>(blob->size()));
    if (SUCCEEDED(hr))
      Store()->Replace(std::move(loaded));
    else
      WriteDefaults(Store());
    return hr;
  });
}

STDMETHODIMP CVKVStabilizeImpl::SaveAttributes() {
  return ComBoundary([&]() -> HRESULT {
    if (!Store()) return MF_E_NOT_INITIALIZED;
    CRegistryKey key;
    LSTATUS status = key.Create(HKEY_CURRENT_USER, kKeyName, KEY_READ | KEY_WRITE);
    if (status != ERROR_SUCCESS) return HRESULT_FROM_WIN32(status);
    // A write between the reads of size and content would make them disagree.
    const CStoreLock lock(Store());
    UINT32 size = 0;
    HRESULT hr = MFGetAttributesAsBlobSize(Store(), &size);
    if (FAILED(hr)) return hr;
    std::vector<std::byte> blob(size);
    hr = MFGetAttributesAsBlob(Store(), reinterpret_cast<UINT8*>(blob.data()), size);
    if (FAILED(hr)) return hr;
    status = key.SetData(kValueName, REG_BINARY, blob);
    return HRESULT_FROM_WIN32(status);
  });
}
