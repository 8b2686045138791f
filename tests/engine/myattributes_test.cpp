#include "engine/myattributes.h"

#include <thread>

#include "testenvironment.h"

using Microsoft::WRL::ComPtr;

namespace {

constexpr GUID kKey = settingskeys::Key(1);

/// Hears of changes, and writes on hearing when told to.
class Listener : public MyAttributesCallback {
 public:
  explicit Listener(MyAttributes* store) : m_pStore(store) { store->SetCallback(this); }
  ~Listener() { m_pStore->SetCallback(nullptr); }

  HRESULT AttributesChanged() override {
    ++calls;
    const CStoreLock lock(m_pStore);
    if (writes) m_pStore->SetUINT32(kKey, 77);
    m_pStore->ClearDirty();
    return S_OK;
  }

  int calls = 0;
  bool writes = false;

 private:
  MyAttributes* m_pStore;
};

class MyAttributesTest : public EngineTest {
 protected:
  MyAttributesTest() { EXPECT_EQ(MyAttributes::Create(&CreateAttributes, 4, &m_pStore), S_OK); }

  ComPtr<MyAttributes> m_pStore;
};

TEST_F(MyAttributesTest, EveryWriteNotifiesOnceAndNothingElseDoes) {
  Listener listener(m_pStore.Get());
  auto calls = [&, last = 0]() mutable { return listener.calls - std::exchange(last, listener.calls); };
  PROPVARIANT value = {};
  value.vt = VT_UI4;
  value.ulVal = 9;
  const UINT8 blob[] = {1, 2, 3};
  EXPECT_EQ(m_pStore->SetItem(kKey, value), S_OK);
  EXPECT_EQ(calls(), 1) << "SetItem";
  EXPECT_EQ(m_pStore->SetUINT32(kKey, 9), S_OK);
  EXPECT_EQ(calls(), 1) << "SetUINT32 of the value that is there";
  EXPECT_EQ(m_pStore->SetUINT64(kKey, 1), S_OK);
  EXPECT_EQ(calls(), 1) << "SetUINT64";
  EXPECT_EQ(m_pStore->SetDouble(kKey, 1.5), S_OK);
  EXPECT_EQ(calls(), 1) << "SetDouble";
  EXPECT_EQ(m_pStore->SetGUID(kKey, kKey), S_OK);
  EXPECT_EQ(calls(), 1) << "SetGUID";
  EXPECT_EQ(m_pStore->SetString(kKey, L"text"), S_OK);
  EXPECT_EQ(calls(), 1) << "SetString";
  EXPECT_EQ(m_pStore->SetBlob(kKey, blob, 3), S_OK);
  EXPECT_EQ(calls(), 1) << "SetBlob";
  EXPECT_EQ(m_pStore->SetUnknown(kKey, nullptr), S_OK);
  EXPECT_EQ(calls(), 1) << "SetUnknown";
  value.vt = VT_UI1;
  EXPECT_HRESULT_FAILED(m_pStore->SetItem(kKey, value));
  EXPECT_EQ(calls(), 1) << "a write that failed";

  UINT32 number = 0;
  EXPECT_HRESULT_FAILED(m_pStore->GetUINT32(kKey, &number));
  EXPECT_EQ(m_pStore->DeleteItem(kKey), S_OK);
  EXPECT_EQ(m_pStore->SetUINT32(kKey, 9), S_OK);
  EXPECT_EQ(m_pStore->DeleteAllItems(), S_OK);
  m_pStore->LockStore();
  m_pStore->UnlockStore();
  EXPECT_EQ(calls(), 1) << "reads, deletions and bare locks";
}

TEST_F(MyAttributesTest, ABatchAndWhatTheListenerWritesAreOneNotification) {
  Listener listener(m_pStore.Get());
  {
    const CStoreLock outer(m_pStore.Get());
    m_pStore->SetUINT32(kKey, 1);
    {
      const CStoreLock inner(m_pStore.Get());
      m_pStore->SetUINT32(kKey, 2);
    }
    EXPECT_EQ(listener.calls, 0);
  }
  EXPECT_EQ(listener.calls, 1);

  listener.writes = true;
  m_pStore->SetUINT32(kKey, 3);
  EXPECT_EQ(listener.calls, 2);
  UINT32 value = 0;
  EXPECT_EQ(m_pStore->GetUINT32(kKey, &value), S_OK);
  EXPECT_EQ(value, 77U);
}

TEST_F(MyAttributesTest, ForwardsEveryReadToThePlatformsStore) {
  const UINT8 blob[] = {5, 6, 7};
  using settingskeys::Key;
  constexpr GUID kText = Key(2), kBlob = Key(3), kWide = Key(4), kReal = Key(5), kGuid = Key(6),
                 kObject = Key(7);
  m_pStore->SetUINT32(kKey, 42);
  m_pStore->SetString(kText, L"text");
  m_pStore->SetBlob(kBlob, blob, 3);
  m_pStore->SetUINT64(kWide, 1ULL << 40);
  m_pStore->SetDouble(kReal, 2.5);
  m_pStore->SetGUID(kGuid, kBlob);
  ComPtr<IMFAttributes> other;
  ASSERT_EQ(MFCreateAttributes(&other, 1), S_OK);
  m_pStore->SetUnknown(kObject, other.Get());

  UINT32 number = 0, size = 0;
  UINT64 wide = 0;
  double real = 0;
  GUID guid = {};
  WCHAR text[8];
  UINT8 bytes[8];
  EXPECT_EQ(m_pStore->GetUINT64(kWide, &wide), S_OK);
  EXPECT_EQ(m_pStore->GetDouble(kReal, &real), S_OK);
  EXPECT_EQ(m_pStore->GetGUID(kGuid, &guid), S_OK);
  EXPECT_EQ(wide, 1ULL << 40);
  EXPECT_EQ(real, 2.5);
  EXPECT_TRUE(guid == kBlob);
  EXPECT_EQ(m_pStore->GetStringLength(kText, &size), S_OK);
  EXPECT_EQ(size, 4U);
  EXPECT_EQ(m_pStore->GetString(kText, text, 8, &size), S_OK);
  EXPECT_STREQ(text, L"text");
  EXPECT_EQ(m_pStore->GetBlobSize(kBlob, &size), S_OK);
  EXPECT_EQ(size, 3U);
  EXPECT_EQ(m_pStore->GetBlob(kBlob, bytes, 8, &size), S_OK);
  EXPECT_EQ(bytes[2], 7);

  WCHAR* allocatedText = nullptr;
  UINT8* allocatedBlob = nullptr;
  EXPECT_EQ(m_pStore->GetAllocatedString(kText, &allocatedText, &size), S_OK);
  EXPECT_STREQ(allocatedText, L"text");
  EXPECT_EQ(m_pStore->GetAllocatedBlob(kBlob, &allocatedBlob, &size), S_OK);
  EXPECT_EQ(allocatedBlob[0], 5);
  CoTaskMemFree(allocatedText);
  CoTaskMemFree(allocatedBlob);

  ComPtr<IMFAttributes> object;
  EXPECT_EQ(m_pStore->GetUnknown(kObject, IID_PPV_ARGS(&object)), S_OK);
  EXPECT_EQ(object.Get(), other.Get());
  object.Reset();

  PROPVARIANT item = {};
  BOOL equal = FALSE;
  MF_ATTRIBUTE_TYPE type = MF_ATTRIBUTE_STRING;
  EXPECT_EQ(m_pStore->GetItem(kKey, &item), S_OK);
  EXPECT_EQ(item.ulVal, 42U);
  EXPECT_EQ(m_pStore->GetItemType(kKey, &type), S_OK);
  EXPECT_EQ(type, MF_ATTRIBUTE_UINT32);
  EXPECT_EQ(m_pStore->CompareItem(kKey, item, &equal), S_OK);
  EXPECT_TRUE(equal);
  EXPECT_EQ(m_pStore->GetCount(&number), S_OK);
  EXPECT_EQ(number, 7U);
  EXPECT_EQ(m_pStore->GetItemByIndex(0, &guid, nullptr), S_OK);
  EXPECT_TRUE(guid == kKey);

  m_pStore->DeleteItem(kObject);
  ComPtr<IMFAttributes> copy;
  ASSERT_EQ(MFCreateAttributes(&copy, 1), S_OK);
  EXPECT_EQ(m_pStore->CopyAllItems(copy.Get()), S_OK);
  EXPECT_EQ(m_pStore->Compare(copy.Get(), MF_ATTRIBUTES_MATCH_ALL_ITEMS, &equal), S_OK);
  EXPECT_TRUE(equal);
}

TEST_F(MyAttributesTest, DeletesAndReadsWithoutTheLock) {
  m_pStore->SetUINT32(kKey, 1);
  const CStoreLock lock(m_pStore.Get());
  std::thread([&] {
    UINT32 value = 0;
    EXPECT_EQ(m_pStore->GetUINT32(kKey, &value), S_OK);
    EXPECT_EQ(m_pStore->DeleteItem(kKey), S_OK);
    EXPECT_EQ(m_pStore->DeleteAllItems(), S_OK);
  }).join();
}

TEST_F(MyAttributesTest, CountsReferencesAndReportsWhatItCannotMake) {
  ComPtr<IUnknown> unknown;
  EXPECT_EQ(m_pStore->QueryInterface(IID_PPV_ARGS(&unknown)), S_OK);
  EXPECT_EQ(m_pStore->AddRef(), 3U);
  EXPECT_EQ(m_pStore->Release(), 2U);
  void* object = this;
  EXPECT_EQ(m_pStore->QueryInterface(kKey, &object), E_NOINTERFACE);
  EXPECT_EQ(object, nullptr);
  EXPECT_EQ(m_pStore->QueryInterface(kKey, nullptr), E_POINTER);

  MyAttributes* none = m_pStore.Get();
  EXPECT_EQ(MyAttributes::Create([](IMFAttributes**, UINT32) -> HRESULT { return E_ACCESSDENIED; }, 1, &none),
            E_ACCESSDENIED);
  EXPECT_EQ(none, nullptr);
  const FailingAllocations all(0);
  EXPECT_EQ(MyAttributes::Create(MFCreateAttributes, 1, &none), E_OUTOFMEMORY);
  EXPECT_EQ(none, nullptr);
}

}  // namespace
