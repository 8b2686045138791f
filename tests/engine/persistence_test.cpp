#include "common/registrykey.h"
#include "testenvironment.h"

extern "C" {
extern decltype(&MFGetAttributesAsBlobSize) __imp_MFGetAttributesAsBlobSize;
extern decltype(&MFGetAttributesAsBlob) __imp_MFGetAttributesAsBlob;
extern decltype(&RegCloseKey) __imp_RegCloseKey;
}

namespace {

using Bytes = std::vector<std::byte>;

class Persistence : public FacadeTest {
 protected:
  static void Store(DWORD type, const Bytes& data) {
    CRegistryKey key;
    ASSERT_EQ(key.Create(HKEY_CURRENT_USER, kKeyName, KEY_WRITE), ERROR_SUCCESS);
    ASSERT_EQ(key.SetData("Attributes", type, data), ERROR_SUCCESS);
  }

  static Bytes Stored() {
    const auto data = ReadRegistryValue(HKEY_CURRENT_USER, kKeyName, "Attributes", RRF_RT_REG_BINARY);
    EXPECT_TRUE(data);
    return data.value_or(Bytes());
  }

  /// Saves while one system function fails.
  template <auto& slot>
  HRESULT SaveWithout(auto failure) {
    const Replaced<slot> failing([=](auto...) { return failure; });
    return m_pFacade->SaveAttributes();
  }

  void ExpectDefaults() const {
    UINT32 count = 0;
    m_pFacade->Attributes()->GetCount(&count);
    EXPECT_EQ(count, kSettingDefaults.size());
    for (std::size_t i = 0; i < kSettingDefaults.size(); ++i)
      EXPECT_EQ(Item(kSettingDefaults[i].key), kSettingDefaults[i].value) << "default of item " << i;
  }
};

TEST_F(Persistence, KeepsTheSettingsWhenNothingUsableIsSaved) {
  m_pFacade->put_ROITop(7);
  EXPECT_EQ(m_pFacade->LoadAttributes(), S_OK) << "no key";
  Store(REG_DWORD, Bytes(4));
  EXPECT_EQ(m_pFacade->LoadAttributes(), S_OK) << "a number";
  Store(REG_SZ, Bytes(40, std::byte{'a'}));
  EXPECT_EQ(m_pFacade->LoadAttributes(), S_OK) << "a text";
  EXPECT_EQ(Item(VKVSTAB_ATTR_ROI_TOP), 7U);
}

TEST_F(Persistence, SavesThePlatformsBlobAndRestoresEveryItemAtOnce) {
  for (UINT32 i = 0; i < kSettingDefaults.size(); ++i)
    m_pFacade->Attributes()->SetUINT32(kSettingDefaults[i].key, 100 + i);
  m_pFacade->put_ClippingOption(vkvstab_CLIPPINGOPTIONS_CROP);
  EXPECT_EQ(m_pFacade->SaveAttributes(), S_OK);

  UINT32 size = 0;
  ASSERT_EQ(MFGetAttributesAsBlobSize(m_pFacade->Attributes(), &size), S_OK);
  Bytes blob(size);
  ASSERT_EQ(MFGetAttributesAsBlob(m_pFacade->Attributes(), reinterpret_cast<UINT8*>(blob.data()), size),
            S_OK);
  EXPECT_EQ(Stored(), blob);

  m_pFacade->ResetToDefaults();
  ExpectDefaults();
  m_transform.calls = 0;
  EXPECT_EQ(m_pFacade->LoadAttributes(), S_OK);
  EXPECT_EQ(m_transform.calls, 1);
  for (UINT32 i = 0; i < kSettingDefaults.size(); ++i)
    EXPECT_EQ(Item(kSettingDefaults[i].key),
              kSettingDefaults[i].key == VKVSTAB_ATTR_CLIPPING_OPTION ? 1 : 100 + i)
        << i;
}

TEST_F(Persistence, ResetsToDefaultsOnACorruptBlobAndLeavesTheValue) {
  m_pFacade->SaveAttributes();
  const Bytes good = Stored();
  std::vector<Bytes> corrupt = {
      {}, Bytes(1), {good.begin(), good.begin() + 7}, {good.begin(), good.end() - 1}};
  corrupt.emplace_back(Bytes(1000, std::byte{0xFF}));
  for (std::size_t i = 0; i < corrupt.size(); ++i) {
    m_pFacade->put_PathSmoothingLevel(vkvstab_PATHSMOOTHINGLEVEL_7);
    Store(REG_BINARY, corrupt[i]);
    EXPECT_HRESULT_FAILED(m_pFacade->LoadAttributes())
        << "blob " << i << " of " << corrupt[i].size() << " bytes";
    ExpectDefaults();
    EXPECT_EQ(Stored(), corrupt[i]);
  }
}

TEST_F(Persistence, HandlesBlobsOfSeveralMegabytesAndMissingMemory) {
  constexpr GUID kExtra = settingskeys::Key(99);
  const std::vector<UINT8> extra(6 << 20, 0x5A);
  m_pFacade->Attributes()->SetBlob(kExtra, extra.data(), static_cast<UINT32>(extra.size()));
  EXPECT_EQ(m_pFacade->SaveAttributes(), S_OK);
  m_pFacade->ResetToDefaults();
  m_pFacade->Attributes()->DeleteItem(kExtra);
  {
    const FailingAllocations limit(1 << 20);
    EXPECT_EQ(m_pFacade->LoadAttributes(), E_OUTOFMEMORY);
    ExpectDefaults();
  }
  EXPECT_EQ(m_pFacade->LoadAttributes(), S_OK);
  std::vector<UINT8> loaded(extra.size());
  EXPECT_EQ(m_pFacade->Attributes()->GetBlob(kExtra, loaded.data(), 6 << 20, nullptr), S_OK);
  EXPECT_TRUE(loaded == extra);
  const FailingAllocations limit(1 << 20);
  EXPECT_EQ(m_pFacade->SaveAttributes(), E_OUTOFMEMORY);
}

TEST_F(Persistence, ReportsEachStepOfSavingThatFails) {
  m_pFacade->SaveAttributes();
  const Bytes before = Stored();
  m_pFacade->put_ROITop(7);
  const LSTATUS full = ERROR_DISK_FULL;
  EXPECT_EQ(SaveWithout<__imp_RegCreateKeyExA>(full), HRESULT_FROM_WIN32(full));
  EXPECT_EQ(SaveWithout<__imp_MFGetAttributesAsBlobSize>(E_ABORT), E_ABORT);
  EXPECT_EQ(SaveWithout<__imp_MFGetAttributesAsBlob>(E_ABORT), E_ABORT);
  EXPECT_EQ(SaveWithout<__imp_RegSetValueExA>(full), HRESULT_FROM_WIN32(full));
  EXPECT_EQ(Stored(), before);
}

TEST_F(Persistence, ClosesItsKeys) {
  int closed = 0;
  const Replaced<__imp_RegCloseKey> close([&](HKEY) { return ++closed, ERROR_SUCCESS; });
  m_pFacade->SaveAttributes();
  EXPECT_EQ(closed, 1);
}

TEST_F(Persistence, TakesItemsOfAnotherTypeForMissing) {
  m_pFacade->Attributes()->SetString(VKVSTAB_ATTR_ENABLED, L"no");
  m_pFacade->Attributes()->SetDouble(VKVSTAB_ATTR_PATH_SMOOTHING_LEVEL, 8.0);
  EXPECT_EQ(m_pFacade->SaveAttributes(), S_OK);
  m_pFacade->ResetToDefaults();
  EXPECT_EQ(m_pFacade->LoadAttributes(), S_OK);
  unsigned version = 0;
  const StabilizerSettings taken = m_pFacade->TakeSnapshot(&version);
  EXPECT_TRUE(taken.Enabled);
  EXPECT_EQ(taken.PathSmoothingLevel, 0);
}

}  // namespace
