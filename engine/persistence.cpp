#include <windows.h>

#include <cstddef>
#include <memory>
#include <mfapi.h>
#include <mferror.h>
#include <span>
#include <utility>
#include <wrl/client.h>

#include "common/comboundary.h"
#include "common/registrykey.h"
#include "engine/settingskeys.h"
#include "engine/vkvstabilizeimpl.h"

using Microsoft::WRL::ComPtr;

// Where the settings stand between runs, and how they go back to their defaults.

namespace {

constexpr char kKeyName[] = "SOFTWARE\\Varkon Systems, Inc.\\MF\\Transforms\\VStabilize";
constexpr char kValueName[] = "Attributes";

/// Bytes for one blob, rounded up to 16.
struct BlobBuffer {
  explicit BlobBuffer(std::size_t size)
      : bytes(std::make_unique_for_overwrite<std::byte[]>((size + 15) / 16 * 16)), view(bytes.get(), size) {}
  UINT8* Data() const { return reinterpret_cast<UINT8*>(bytes.get()); }

  std::unique_ptr<std::byte[]> bytes;
  std::span<std::byte> view;
};

}  // namespace

STDMETHODIMP CVKVStabilizeImpl::ResetToDefaults() { return Store() ? WriteDefaults(Store()) : CreateStore(); }

HRESULT CVKVStabilizeImpl::WriteDefaults(IMFAttributes* store) {
  store->LockStore();
  for (const SettingDefault& setting : kSettingDefaults) {
    const HRESULT hr = store->SetUINT32(setting.key, setting.value);
    // The store stays locked and the rest as it was: what depends on a whole reset must not go on.
    if (FAILED(hr)) return hr;
  }
  store->UnlockStore();
  return S_OK;
}

STDMETHODIMP CVKVStabilizeImpl::LoadAttributes() {
  return ComBoundary([&] {
    HRESULT hr = CreateStore();
    if (FAILED(hr)) return hr;

    CRegistryKey key;
    DWORD type = REG_NONE, size = 0;
    if (key.Open(HKEY_CURRENT_USER, kKeyName, KEY_READ) != ERROR_SUCCESS ||
        key.QueryType(kValueName, &type, &size) != ERROR_SUCCESS || type != REG_BINARY)
      return S_OK;
    const BlobBuffer blob(size);
    if (key.QueryData(kValueName, blob.view, &size) != ERROR_SUCCESS) return S_OK;

    // Filled aside: others read this store meanwhile, and would find it empty and half full.
    ComPtr<IMFAttributes> loaded;
    hr = m_createAttributes(&loaded, static_cast<UINT32>(kSettingDefaults.size()));
    if (FAILED(hr)) return hr;
    hr = MFInitAttributesFromBlob(loaded.Get(), blob.Data(), size);
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
    // Size and content of one moment.
    const CStoreLock lock(Store());
    UINT32 size = 0;
    HRESULT hr = MFGetAttributesAsBlobSize(Store(), &size);
    if (FAILED(hr)) return hr;
    const BlobBuffer blob(size);
    hr = MFGetAttributesAsBlob(Store(), blob.Data(), size);
    if (FAILED(hr)) return hr;
    status = key.SetData(kValueName, REG_BINARY, blob.view);
    return HRESULT_FROM_WIN32(status);
  });
}
