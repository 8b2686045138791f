#include <windows.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>
#include <wrl/client.h>

#include "common/module.h"
#include "mft/mft_vstabilize.h"

namespace {

/// The module as the system's loader sees it.
class ModuleFile : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(m_module, nullptr); }
  ~ModuleFile() override { FreeLibrary(m_module); }

  template <class Record>
  const Record* At(DWORD offset) const {
    return reinterpret_cast<const Record*>(reinterpret_cast<const char*>(m_module) + offset);
  }
  const IMAGE_OPTIONAL_HEADER64& Header() const {
    return At<IMAGE_NT_HEADERS64>(static_cast<DWORD>(At<IMAGE_DOS_HEADER>(0)->e_lfanew))->OptionalHeader;
  }
  DWORD Directory(int entry) const { return Header().DataDirectory[entry].VirtualAddress; }

  HMODULE m_module = LoadLibraryA(VSTABILIZE_MODULE);
};

TEST_F(ModuleFile, ExportsItsEntryPointsOnly) {
  const auto* const exports = At<IMAGE_EXPORT_DIRECTORY>(Directory(IMAGE_DIRECTORY_ENTRY_EXPORT));
  std::vector<std::string> names;
  for (DWORD i = 0; i < exports->NumberOfNames; ++i)
    names.emplace_back(At<char>(At<DWORD>(exports->AddressOfNames)[i]));
  EXPECT_EQ(names, (std::vector<std::string>{"DllCanUnloadNow", "DllGetClassObject", "DllRegisterServer",
                                             "DllUnregisterServer"}));
  EXPECT_EQ(exports->NumberOfFunctions, 4U);
}

TEST_F(ModuleFile, IsHardened) {
  constexpr WORD kHardened = IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE |
                             IMAGE_DLLCHARACTERISTICS_HIGH_ENTROPY_VA | IMAGE_DLLCHARACTERISTICS_NX_COMPAT;
  EXPECT_EQ(Header().DllCharacteristics & kHardened, kHardened);
  EXPECT_NE(Directory(IMAGE_DIRECTORY_ENTRY_BASERELOC), 0U) << "it cannot be moved";
  EXPECT_GT(Header().ImageBase, UINT64_C(0xFFFFFFFF));
}

TEST_F(ModuleFile, TellsItsVersionAndCarriesItsResources) {
  const std::uint64_t version = ReadFileVersion(VSTABILIZE_MODULE).value_or(0);
  EXPECT_EQ(std::to_string(version >> 48) + '.' + std::to_string(version >> 32 & 0xFFFF) + '.' +
                std::to_string(version >> 16 & 0xFFFF),
            VSTABILIZE_VERSION);
  for (const auto& [type, id] :
       {std::pair{"TYPELIB", 1}, {MAKEINTRESOURCEA(5), 101}, {MAKEINTRESOURCEA(5), 5240}})
    EXPECT_NE(FindResourceA(m_module, MAKEINTRESOURCEA(id), type), nullptr) << id;
}

std::size_t CountFreeThreadLocalSlots() {
  std::vector<DWORD> slots;
  for (DWORD slot = TlsAlloc(); slot != TLS_OUT_OF_INDEXES; slot = TlsAlloc()) slots.push_back(slot);
  for (const DWORD slot : slots) TlsFree(slot);
  return slots.size();
}

/// Loads the module, makes a transform, and unloads it.
void UseModuleOnce() {
  const HMODULE module = LoadLibraryA(VSTABILIZE_MODULE);
  ASSERT_NE(module, nullptr);
  const auto getClassObject = reinterpret_cast<decltype(&DllGetClassObject)>(
      reinterpret_cast<void*>(GetProcAddress(module, "DllGetClassObject")));
  {
    Microsoft::WRL::ComPtr<IClassFactory> factory;
    Microsoft::WRL::ComPtr<IUnknown> transform;
    ASSERT_EQ(getClassObject(CLSID_VKFVStabilize, IID_PPV_ARGS(&factory)), S_OK);
    EXPECT_EQ(factory->CreateInstance(nullptr, IID_PPV_ARGS(&transform)), S_OK);
  }
  FreeLibrary(module);
  EXPECT_EQ(GetModuleHandleA("vkfvstabilize.dll"), nullptr);
}

TEST(Module, CanBeLoadedAndUnloadedAnyNumberOfTimes) {
  UseModuleOnce();  // from now on, the system has allocated what it keeps
  const std::size_t slots = CountFreeThreadLocalSlots();
  UseModuleOnce();
  EXPECT_EQ(CountFreeThreadLocalSlots(), slots);
}

}  // namespace
