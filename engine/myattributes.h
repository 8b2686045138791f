#pragma once

#include <windows.h>

#include <mfobjects.h>
#include <wrl/client.h>

#include "common/baseobject.h"
#include "common/criticalsection.h"
#include "common/refcounted.h"

/// Is notified when items of a `MyAttributes` were written.
class MyAttributesCallback {
 public:
  /// Called once when the store's outermost lock is about to be released after writes. The store is still
  /// locked. The result is ignored.
  virtual HRESULT AttributesChanged() = 0;

 protected:
  ~MyAttributesCallback() = default;
};

/// An attribute store that notifies a callback of writes. Each write takes the store's lock. When the
/// outermost lock is released after writes, the callback is called once. Deletions and reads do not take the
/// lock and do not notify.
class MyAttributes : private MediaFoundationSamples::BaseObject, public CRefCounted<IMFAttributes> {
 public:
  using CreateFunction = HRESULT(STDAPICALLTYPE*)(IMFAttributes** attributes, UINT32 initialSize);

  /// Wraps a new store made by `create`. The caller owns the one reference.
  static HRESULT Create(CreateFunction create, UINT32 initialSize, MyAttributes** attributes);

  MyAttributes(const MyAttributes&) = delete;
  MyAttributes& operator=(const MyAttributes&) = delete;

  /// Replaces the callback; null for none. The previous callback is not called after this returns.
  void SetCallback(MyAttributesCallback* callback);

  /// Cancels the pending notification. Called with the store locked.
  void ClearDirty();

  /// The current inner store. `Replace` exchanges that store and does not change it, so items that are read
  /// from it belong together.
  Microsoft::WRL::ComPtr<IMFAttributes> Inner() const;

  /// Replaces all items by those of another store, in one write: readers see either the old items or the new
  /// ones.
  void Replace(Microsoft::WRL::ComPtr<IMFAttributes> inner);

  // IUnknown
  STDMETHODIMP QueryInterface(REFIID iid, void** object) override;

  // IMFAttributes
  STDMETHODIMP GetItem(REFGUID key, PROPVARIANT* value) override;
  STDMETHODIMP GetItemType(REFGUID key, MF_ATTRIBUTE_TYPE* type) override;
  STDMETHODIMP CompareItem(REFGUID key, REFPROPVARIANT value, BOOL* result) override;
  STDMETHODIMP Compare(IMFAttributes* other, MF_ATTRIBUTES_MATCH_TYPE type, BOOL* result) override;
  STDMETHODIMP GetUINT32(REFGUID key, UINT32* value) override;
  STDMETHODIMP GetUINT64(REFGUID key, UINT64* value) override;
  STDMETHODIMP GetDouble(REFGUID key, double* value) override;
  STDMETHODIMP GetGUID(REFGUID key, GUID* value) override;
  STDMETHODIMP GetStringLength(REFGUID key, UINT32* length) override;
  STDMETHODIMP GetString(REFGUID key, WCHAR* value, UINT32 size, UINT32* length) override;
  STDMETHODIMP GetAllocatedString(REFGUID key, WCHAR** value, UINT32* length) override;
  STDMETHODIMP GetBlobSize(REFGUID key, UINT32* size) override;
  STDMETHODIMP GetBlob(REFGUID key, UINT8* buffer, UINT32 bufferSize, UINT32* size) override;
  STDMETHODIMP GetAllocatedBlob(REFGUID key, UINT8** buffer, UINT32* size) override;
  STDMETHODIMP GetUnknown(REFGUID key, REFIID iid, void** object) override;
  STDMETHODIMP SetItem(REFGUID key, REFPROPVARIANT value) override;
  STDMETHODIMP DeleteItem(REFGUID key) override;
  STDMETHODIMP DeleteAllItems() override;
  STDMETHODIMP SetUINT32(REFGUID key, UINT32 value) override;
  STDMETHODIMP SetUINT64(REFGUID key, UINT64 value) override;
  STDMETHODIMP SetDouble(REFGUID key, double value) override;
  STDMETHODIMP SetGUID(REFGUID key, REFGUID value) override;
  STDMETHODIMP SetString(REFGUID key, LPCWSTR value) override;
  STDMETHODIMP SetBlob(REFGUID key, const UINT8* buffer, UINT32 size) override;
  STDMETHODIMP SetUnknown(REFGUID key, IUnknown* object) override;
  STDMETHODIMP LockStore() override;
  STDMETHODIMP UnlockStore() override;
  STDMETHODIMP GetCount(UINT32* count) override;
  STDMETHODIMP GetItemByIndex(UINT32 index, GUID* key, PROPVARIANT* value) override;
  STDMETHODIMP CopyAllItems(IMFAttributes* destination) override;

 protected:
  explicit MyAttributes(Microsoft::WRL::ComPtr<IMFAttributes> attributes)
      : m_pAttributes(std::move(attributes)) {}
  ~MyAttributes() override = default;

 private:
  template <class Function>
  HRESULT Write(Function write);

  mutable CCriticalSection m_innerLock;                 // held only to copy or exchange the pointer
  Microsoft::WRL::ComPtr<IMFAttributes> m_pAttributes;  // guarded by m_innerLock
  CCriticalSection m_lock;
  // Guarded by m_lock:
  MyAttributesCallback* m_pCallback = nullptr;
  int m_lockDepth = 0;
  bool m_dirty = false;
};

/// Locks a store for a scope. The store may be null.
class CStoreLock {
 public:
  explicit CStoreLock(IMFAttributes* store) : m_pStore(store) {
    if (m_pStore) m_pStore->LockStore();
  }
  ~CStoreLock() {
    if (m_pStore) m_pStore->UnlockStore();
  }
  CStoreLock(const CStoreLock&) = delete;
  CStoreLock& operator=(const CStoreLock&) = delete;

 private:
  IMFAttributes* m_pStore;
};
