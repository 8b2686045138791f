#pragma once

#include <windows.h>

#include <gtest/gtest.h>
#include <mfapi.h>
#include <string>
#include <vector>
#include <wrl/client.h>

#include "common/debugreport.h"
#include "engine/settingskeys.h"
#include "engine/vkvstabilizeimpl.h"

/// A transform's end of the callback.
class CallbackCounter : public VKVStabilizeImplCB {
 public:
  HRESULT STDMETHODCALLTYPE OutputChanged() override {
    ++calls;
    return E_FAIL;  // of no interest to the facade
  }
  int calls = 0;
};

/// Each case starts without saved settings and must leave nothing behind: no memory, no reference to the
/// platform's attribute store. Reports of failed assertions are kept.
class EngineTest : public ::testing::Test {
 public:
  /// Makes the platform's store and remembers it.
  static HRESULT STDAPICALLTYPE CreateAttributes(IMFAttributes** attributes, UINT32 initialSize);

 protected:
  EngineTest();
  ~EngineTest() override;

  /// How many pieces of memory are in use, not counting the platform's.
  static long LiveAllocations();

  /// A facade whose store is watched; null callback unless given.
  Microsoft::WRL::ComPtr<CVKVStabilizeImpl> MakeFacade(VKVStabilizeImplCB* callback = nullptr);

  static constexpr char kKeyName[] = "SOFTWARE\\Varkon Systems, Inc.\\MF\\Transforms\\VStabilize";

  std::vector<std::string> m_assertions;
  std::vector<std::string> m_traces;

 private:
  long m_allocations = 0;
};

/// A store of UINT32 items that can be told to fail its writes.
class FailingAttributes final : public IMFAttributes {
 public:
  static constexpr int kNoFailure = -1;
  /// How many more writes succeed.
  static int writesLeft;

  static HRESULT STDAPICALLTYPE Create(IMFAttributes** attributes, UINT32 initialSize);

  STDMETHODIMP QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
  STDMETHODIMP_(ULONG) AddRef() override { return ++m_references; }
  STDMETHODIMP_(ULONG) Release() override;
  STDMETHODIMP GetUINT32(REFGUID key, UINT32* value) override;
  STDMETHODIMP SetUINT32(REFGUID key, UINT32 value) override;

  STDMETHODIMP GetItem(REFGUID, PROPVARIANT*) override { return E_NOTIMPL; }
  STDMETHODIMP GetItemType(REFGUID, MF_ATTRIBUTE_TYPE*) override { return E_NOTIMPL; }
  STDMETHODIMP CompareItem(REFGUID, REFPROPVARIANT, BOOL*) override { return E_NOTIMPL; }
  STDMETHODIMP Compare(IMFAttributes*, MF_ATTRIBUTES_MATCH_TYPE, BOOL*) override { return E_NOTIMPL; }
  STDMETHODIMP GetUINT64(REFGUID, UINT64*) override { return E_NOTIMPL; }
  STDMETHODIMP GetDouble(REFGUID, double*) override { return E_NOTIMPL; }
  STDMETHODIMP GetGUID(REFGUID, GUID*) override { return E_NOTIMPL; }
  STDMETHODIMP GetStringLength(REFGUID, UINT32*) override { return E_NOTIMPL; }
  STDMETHODIMP GetString(REFGUID, WCHAR*, UINT32, UINT32*) override { return E_NOTIMPL; }
  STDMETHODIMP GetAllocatedString(REFGUID, WCHAR**, UINT32*) override { return E_NOTIMPL; }
  STDMETHODIMP GetBlobSize(REFGUID, UINT32*) override { return E_NOTIMPL; }
  STDMETHODIMP GetBlob(REFGUID, UINT8*, UINT32, UINT32*) override { return E_NOTIMPL; }
  STDMETHODIMP GetAllocatedBlob(REFGUID, UINT8**, UINT32*) override { return E_NOTIMPL; }
  STDMETHODIMP GetUnknown(REFGUID, REFIID, void**) override { return E_NOTIMPL; }
  STDMETHODIMP SetItem(REFGUID, REFPROPVARIANT) override { return E_NOTIMPL; }
  STDMETHODIMP DeleteItem(REFGUID) override { return E_NOTIMPL; }
  STDMETHODIMP DeleteAllItems() override { return E_NOTIMPL; }
  STDMETHODIMP SetUINT64(REFGUID, UINT64) override { return E_NOTIMPL; }
  STDMETHODIMP SetDouble(REFGUID, double) override { return E_NOTIMPL; }
  STDMETHODIMP SetGUID(REFGUID, REFGUID) override { return E_NOTIMPL; }
  STDMETHODIMP SetString(REFGUID, LPCWSTR) override { return E_NOTIMPL; }
  STDMETHODIMP SetBlob(REFGUID, const UINT8*, UINT32) override { return E_NOTIMPL; }
  STDMETHODIMP SetUnknown(REFGUID, IUnknown*) override { return E_NOTIMPL; }
  STDMETHODIMP LockStore() override { return E_NOTIMPL; }
  STDMETHODIMP UnlockStore() override { return E_NOTIMPL; }
  STDMETHODIMP GetCount(UINT32*) override { return E_NOTIMPL; }
  STDMETHODIMP GetItemByIndex(UINT32, GUID*, PROPVARIANT*) override { return E_NOTIMPL; }
  STDMETHODIMP CopyAllItems(IMFAttributes*) override { return E_NOTIMPL; }

 private:
  ~FailingAttributes() = default;

  ULONG m_references = 1;
  std::vector<SettingDefault> m_items;
};

/// While the object lives, allocations of `smallest` … `largest` bytes fail.
class FailingAllocations {
 public:
  explicit FailingAllocations(std::size_t smallest, std::size_t largest = SIZE_MAX);
  ~FailingAllocations();
};
