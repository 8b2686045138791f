#include "engine/myattributes.h"

#include <thread>
#include <tuple>

#include "testenvironment.h"

using Microsoft::WRL::ComPtr;

namespace {

constexpr GUID kKey = settingskeys::Key(1);

/// Counts notifications, and may write to the store during them.
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
  MyAttributesTest() { EXPECT_EQ(MyAttributes::Create(MFCreateAttributes, 4, &m_pStore), S_OK); }

  ComPtr<MyAttributes> m_pStore;
};

TEST_F(MyAttributesTest, EveryWriteNotifiesOnceAndNothingElseDoes) {
  Listener listener(m_pStore.Get());
  PROPVARIANT number = {}, unknownType = {};
  number.vt = VT_UI4;
  unknownType.vt = VT_UI1;
  const UINT8 blob[] = {1, 2, 3};
  const HRESULT writes[] = {m_pStore->SetItem(kKey, number),     m_pStore->SetUINT32(kKey, 0),
                            m_pStore->SetUINT64(kKey, 1),        m_pStore->SetDouble(kKey, 1.5),
                            m_pStore->SetGUID(kKey, kKey),       m_pStore->SetString(kKey, L"text"),
                            m_pStore->SetBlob(kKey, blob, 3),    m_pStore->SetUnknown(kKey, nullptr),
                            m_pStore->SetItem(kKey, unknownType)};
  for (std::size_t i = 0; i < 8; ++i) EXPECT_EQ(writes[i], S_OK) << i;
  EXPECT_HRESULT_FAILED(writes[8]);
  EXPECT_EQ(listener.calls, 9) << "writes of what is there and those that fail count, too";

  UINT32 value = 0;
  EXPECT_HRESULT_FAILED(m_pStore->GetUINT32(kKey, &value));
  EXPECT_EQ(m_pStore->DeleteItem(kKey), S_OK);
  EXPECT_EQ(m_pStore->DeleteAllItems(), S_OK);
  m_pStore->LockStore();
  m_pStore->UnlockStore();
  EXPECT_EQ(listener.calls, 9) << "reads, deletions and bare locks";
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
  using settingskeys::Key;
  constexpr GUID kText = Key(2), kBlob = Key(3), kObject = Key(4), kWide = Key(5), kReal = Key(6),
                 kGuid = Key(7);
  const UINT8 blob[] = {5, 6, 7};
  ComPtr<IMFAttributes> copy, object;
  ASSERT_EQ(MFCreateAttributes(&copy, 8), S_OK);
  m_pStore->SetUINT32(kKey, 42);
  m_pStore->SetString(kText, L"text");
  m_pStore->SetBlob(kBlob, blob, 3);
  m_pStore->SetUINT64(kWide, 1ULL << 40);
  m_pStore->SetDouble(kReal, 2.5);
  m_pStore->SetGUID(kGuid, kBlob);
  m_pStore->SetUnknown(kObject, copy.Get());
  EXPECT_EQ(m_pStore->GetUnknown(kObject, IID_PPV_ARGS(&object)), S_OK);
  EXPECT_EQ(object.Get(), copy.Get());
  object.Reset();
  m_pStore->DeleteItem(kObject);

  UINT32 count = 0, textLength = 0, blobSize = 0;
  UINT64 wide = 0;
  double real = 0;
  GUID guid = {};
  WCHAR text[8] = {}, *allocatedText = nullptr;
  UINT8 bytes[8] = {}, *allocatedBlob = nullptr;
  PROPVARIANT item = {};
  MF_ATTRIBUTE_TYPE type = MF_ATTRIBUTE_STRING;
  BOOL equal = FALSE, allEqual = FALSE;
  for (const HRESULT hr :
       {m_pStore->GetStringLength(kText, &textLength), m_pStore->GetBlobSize(kBlob, &blobSize),
        m_pStore->GetUINT64(kWide, &wide), m_pStore->GetDouble(kReal, &real), m_pStore->GetGUID(kGuid, &guid),
        m_pStore->GetString(kText, text, 8, nullptr), m_pStore->GetBlob(kBlob, bytes, 8, nullptr),
        m_pStore->GetAllocatedString(kText, &allocatedText, &count),
        m_pStore->GetAllocatedBlob(kBlob, &allocatedBlob, &count), m_pStore->GetItem(kKey, &item),
        m_pStore->GetItemType(kKey, &type), m_pStore->CompareItem(kKey, item, &equal),
        m_pStore->CopyAllItems(copy.Get()), m_pStore->GetCount(&count),
        m_pStore->Compare(copy.Get(), MF_ATTRIBUTES_MATCH_ALL_ITEMS, &allEqual)})
    EXPECT_EQ(hr, S_OK);
  EXPECT_EQ(std::tuple(count, textLength, blobSize, wide, real, item.ulVal, type),
            std::tuple(6U, 4U, 3U, 1ULL << 40, 2.5, 42U, MF_ATTRIBUTE_UINT32));
  EXPECT_TRUE(guid == kBlob && equal && allEqual && bytes[2] == 7 && allocatedBlob[0] == 5);
  EXPECT_EQ(std::wstring(text) + allocatedText, L"texttext");
  CoTaskMemFree(allocatedText);
  CoTaskMemFree(allocatedBlob);
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
