#include "engine/myattributes.h"

#include <new>
#include <utility>

#include "common/debugreport.h"

using Microsoft::WRL::ComPtr;

HRESULT MyAttributes::Create(CreateFunction create, UINT32 initialSize, MyAttributes** attributes) {
  *attributes = nullptr;
  ComPtr<IMFAttributes> inner;
  const HRESULT hr = create(&inner, initialSize);
  if (FAILED(hr)) return hr;
  *attributes = new (std::nothrow) MyAttributes(std::move(inner));
  return *attributes ? S_OK : E_OUTOFMEMORY;
}

void MyAttributes::SetCallback(MyAttributesCallback* callback) {
  const CAutoLock lock(m_lock);
  m_pCallback = callback;
}

void MyAttributes::ClearDirty() { m_dirty = false; }

ComPtr<IMFAttributes> MyAttributes::Inner() const {
  const CAutoLock lock(m_innerLock);
  DebugAssert(m_pAttributes.Get() != nullptr, "m_pAttributes", "myattributes");
  return m_pAttributes;
}

void MyAttributes::Replace(ComPtr<IMFAttributes> inner) {
  const CStoreLock lock(this);
  m_dirty = true;
  const CAutoLock exchange(m_innerLock);
  m_pAttributes.Swap(inner);
}

template <class Function>
HRESULT MyAttributes::Write(Function write) {
  const CStoreLock lock(this);
  m_dirty = true;  // also if the write fails
  return write(Inner().Get());
}

STDMETHODIMP MyAttributes::QueryInterface(REFIID iid, void** object) {
  if (!object) return E_POINTER;
  const bool isOurs = iid == __uuidof(IUnknown) || iid == __uuidof(IMFAttributes);
  *object = isOurs ? static_cast<IMFAttributes*>(this) : nullptr;
  if (!isOurs) return E_NOINTERFACE;
  AddRef();
  return S_OK;
}

STDMETHODIMP MyAttributes::LockStore() {
  m_lock.lock();
  ++m_lockDepth;
  return S_OK;
}

STDMETHODIMP MyAttributes::UnlockStore() {
  // The callback runs under the lock, so SetCallback waits until it has ended.
  if (m_lockDepth == 1 && m_dirty && m_pCallback) m_pCallback->AttributesChanged();
  --m_lockDepth;
  m_lock.unlock();
  return S_OK;
}

STDMETHODIMP MyAttributes::GetItem(REFGUID key, PROPVARIANT* value) { return Inner()->GetItem(key, value); }

STDMETHODIMP MyAttributes::GetItemType(REFGUID key, MF_ATTRIBUTE_TYPE* type) {
  return Inner()->GetItemType(key, type);
}

STDMETHODIMP MyAttributes::CompareItem(REFGUID key, REFPROPVARIANT value, BOOL* result) {
  return Inner()->CompareItem(key, value, result);
}

STDMETHODIMP MyAttributes::Compare(IMFAttributes* other, MF_ATTRIBUTES_MATCH_TYPE type, BOOL* result) {
  return Inner()->Compare(other, type, result);
}

STDMETHODIMP MyAttributes::GetUINT32(REFGUID key, UINT32* value) { return Inner()->GetUINT32(key, value); }

STDMETHODIMP MyAttributes::GetUINT64(REFGUID key, UINT64* value) { return Inner()->GetUINT64(key, value); }

STDMETHODIMP MyAttributes::GetDouble(REFGUID key, double* value) { return Inner()->GetDouble(key, value); }

STDMETHODIMP MyAttributes::GetGUID(REFGUID key, GUID* value) { return Inner()->GetGUID(key, value); }

STDMETHODIMP MyAttributes::GetStringLength(REFGUID key, UINT32* length) {
  return Inner()->GetStringLength(key, length);
}

STDMETHODIMP MyAttributes::GetString(REFGUID key, WCHAR* value, UINT32 size, UINT32* length) {
  return Inner()->GetString(key, value, size, length);
}

STDMETHODIMP MyAttributes::GetAllocatedString(REFGUID key, WCHAR** value, UINT32* length) {
  return Inner()->GetAllocatedString(key, value, length);
}

STDMETHODIMP MyAttributes::GetBlobSize(REFGUID key, UINT32* size) { return Inner()->GetBlobSize(key, size); }

STDMETHODIMP MyAttributes::GetBlob(REFGUID key, UINT8* buffer, UINT32 bufferSize, UINT32* size) {
  return Inner()->GetBlob(key, buffer, bufferSize, size);
}

STDMETHODIMP MyAttributes::GetAllocatedBlob(REFGUID key, UINT8** buffer, UINT32* size) {
  return Inner()->GetAllocatedBlob(key, buffer, size);
}

STDMETHODIMP MyAttributes::GetUnknown(REFGUID key, REFIID iid, void** object) {
  return Inner()->GetUnknown(key, iid, object);
}

STDMETHODIMP MyAttributes::SetItem(REFGUID key, REFPROPVARIANT value) {
  return Write([&](IMFAttributes* inner) { return inner->SetItem(key, value); });
}

STDMETHODIMP MyAttributes::DeleteItem(REFGUID key) { return Inner()->DeleteItem(key); }

STDMETHODIMP MyAttributes::DeleteAllItems() { return Inner()->DeleteAllItems(); }

STDMETHODIMP MyAttributes::SetUINT32(REFGUID key, UINT32 value) {
  return Write([&](IMFAttributes* inner) { return inner->SetUINT32(key, value); });
}

STDMETHODIMP MyAttributes::SetUINT64(REFGUID key, UINT64 value) {
  return Write([&](IMFAttributes* inner) { return inner->SetUINT64(key, value); });
}

STDMETHODIMP MyAttributes::SetDouble(REFGUID key, double value) {
  return Write([&](IMFAttributes* inner) { return inner->SetDouble(key, value); });
}

STDMETHODIMP MyAttributes::SetGUID(REFGUID key, REFGUID value) {
  return Write([&](IMFAttributes* inner) { return inner->SetGUID(key, value); });
}

STDMETHODIMP MyAttributes::SetString(REFGUID key, LPCWSTR value) {
  return Write([&](IMFAttributes* inner) { return inner->SetString(key, value); });
}

STDMETHODIMP MyAttributes::SetBlob(REFGUID key, const UINT8* buffer, UINT32 size) {
  return Write([&](IMFAttributes* inner) { return inner->SetBlob(key, buffer, size); });
}

STDMETHODIMP MyAttributes::SetUnknown(REFGUID key, IUnknown* object) {
  return Write([&](IMFAttributes* inner) { return inner->SetUnknown(key, object); });
}

STDMETHODIMP MyAttributes::GetCount(UINT32* count) { return Inner()->GetCount(count); }

STDMETHODIMP MyAttributes::GetItemByIndex(UINT32 index, GUID* key, PROPVARIANT* value) {
  return Inner()->GetItemByIndex(index, key, value);
}

STDMETHODIMP MyAttributes::CopyAllItems(IMFAttributes* destination) {
  return Inner()->CopyAllItems(destination);
}
