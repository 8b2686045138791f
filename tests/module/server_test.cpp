#include <windows.h>

#include <cstdint>
#include <mfapi.h>
#include <mftransform.h>
#include <oleauto.h>
#include <olectl.h>

#include "common/baseobject.h"
#include "common/module.h"
#include "common/registrykey.h"
#include "engine/testenvironment.h"
#include "mft/mft_vstabilize.h"

using Microsoft::WRL::ComPtr;

extern "C" BOOL APIENTRY DllMain(HINSTANCE module, DWORD reason, void* reserved);
extern "C" decltype(&VerQueryValueA) __imp_VerQueryValueA;

namespace {

constexpr char kTransformKey[] = "CLSID\\{E2B6EDDE-38C5-11D5-91F6-00104BDB8FF9}";
constexpr char kServerKey[] = "CLSID\\{E2B6EDDE-38C5-11D5-91F6-00104BDB8FF9}\\InprocServer32";
constexpr GUID kFamilyCategory = {
    0x1E6FFA21, 0x24D8, 0x4B28, {0xBF, 0xD0, 0x98, 0xD8, 0x3C, 0x69, 0x82, 0xC3}};

/// HKEY_CLASSES_ROOT is an empty key of this test's own.
class Server : public EngineTest {
 protected:
  Server() {
    RegDeleteTreeA(HKEY_CURRENT_USER, kClasses);
    HKEY classes = nullptr;
    EXPECT_EQ(RegCreateKeyA(HKEY_CURRENT_USER, kClasses, &classes), ERROR_SUCCESS);
    EXPECT_EQ(RegOverridePredefKey(HKEY_CLASSES_ROOT, classes), ERROR_SUCCESS);
    RegCloseKey(classes);
    DllMain(CurrentModule(), DLL_PROCESS_ATTACH, nullptr);
    EXPECT_EQ(DllCanUnloadNow(), S_OK);
  }
  ~Server() override {
    EXPECT_EQ(DllCanUnloadNow(), S_OK);
    RegOverridePredefKey(HKEY_CLASSES_ROOT, nullptr);
    RegDeleteTreeA(HKEY_CURRENT_USER, kClasses);
  }

  static std::string Text(const std::string& keyName, const char* valueName = nullptr) {
    HKEY key = nullptr;
    if (RegOpenKeyA(HKEY_CLASSES_ROOT, keyName.c_str(), &key) != ERROR_SUCCESS) return "(no key)";
    RegCloseKey(key);
    const auto text = ReadRegistryValue(HKEY_CLASSES_ROOT, keyName.c_str(), valueName, RRF_RT_REG_SZ);
    return text ? reinterpret_cast<const char*>(text->data()) : "";
  }

  static void RegisterServer(const std::string& path) {
    CRegistryKey key;
    ASSERT_EQ(key.Create(HKEY_CLASSES_ROOT, kServerKey, KEY_ALL_ACCESS), ERROR_SUCCESS);
    ASSERT_EQ(key.SetText(nullptr, path.c_str()), ERROR_SUCCESS);
  }

  static bool IsListed(const GUID& category) {
    CLSID* classes = nullptr;
    UINT32 count = 0;
    if (FAILED(MFTEnum(category, 0, nullptr, nullptr, nullptr, &classes, &count))) return false;
    const bool isListed = std::find(classes, classes + count, CLSID_VKFVStabilize) != classes + count;
    CoTaskMemFree(classes);
    return isListed;
  }

  static HRESULT LoadRegisteredLibrary() {
    ComPtr<ITypeLib> library;
    return LoadRegTypeLib(settingskeys::EngineKey(0xE2B6EDDB), 1, 0, 0x409, &library);
  }

  static std::string OwnPath() {
    std::string path;
    EXPECT_EQ(GetModulePath(CurrentModule(), &path), S_OK);
    return path;
  }

  static constexpr char kClasses[] = "SOFTWARE\\Varkon Systems, Inc.\\Classes";
};

TEST_F(Server, MakesEachOfItsClassesAndNoOther) {
  for (const CLSID& clsid :
       {CLSID_VKFVStabilize, CLSID_VKFVStabilizePropertyPage, CLSID_VKFVStabilizeAbout}) {
    ComPtr<IClassFactory> factory;
    ASSERT_EQ(DllGetClassObject(clsid, IID_PPV_ARGS(&factory)), S_OK);
    ComPtr<IUnknown> object, outer;
    EXPECT_EQ(factory.As(&outer), S_OK);
    EXPECT_EQ(outer.Get(), factory.Get());
    EXPECT_EQ(factory->CreateInstance(nullptr, IID_PPV_ARGS(&object)), S_OK);
    EXPECT_EQ(object.Reset(), 0U);
    EXPECT_EQ(factory->CreateInstance(nullptr, __uuidof(IUnknown), nullptr), E_POINTER);
    auto* handedOut = reinterpret_cast<void*>(1);
    EXPECT_EQ(factory->CreateInstance(outer.Get(), __uuidof(IMFTransform), &handedOut), E_NOINTERFACE);
    EXPECT_EQ(handedOut, nullptr);
    EXPECT_EQ(factory->CreateInstance(outer.Get(), IID_PPV_ARGS(&object)), CLASS_E_NOAGGREGATION);
    const FailingAllocations failing(1);
    EXPECT_EQ(factory->CreateInstance(nullptr, IID_PPV_ARGS(&object)), E_OUTOFMEMORY);
  }
  auto* untouched = reinterpret_cast<void*>(1);
  EXPECT_EQ(DllGetClassObject(CLSID_NULL, __uuidof(IClassFactory), &untouched), CLASS_E_CLASSNOTAVAILABLE);
  EXPECT_EQ(untouched, nullptr);
  untouched = reinterpret_cast<void*>(1);
  EXPECT_EQ(DllGetClassObject(CLSID_VKFVStabilize, __uuidof(IMFTransform), &untouched), E_NOINTERFACE);
  EXPECT_EQ(untouched, nullptr);
  EXPECT_EQ(DllGetClassObject(CLSID_VKFVStabilize, __uuidof(IClassFactory), nullptr), E_POINTER);
  const FailingAllocations failing(1);
  EXPECT_EQ(DllGetClassObject(CLSID_VKFVStabilize, __uuidof(IClassFactory), &untouched), E_OUTOFMEMORY);
}

TEST_F(Server, StaysLoadedWhileSomethingOfItIsInUse) {
  ComPtr<IClassFactory> factory;
  ASSERT_EQ(DllGetClassObject(CLSID_VKFVStabilize, IID_PPV_ARGS(&factory)), S_OK);
  EXPECT_EQ(DllCanUnloadNow(), S_OK) << "a factory alone keeps nothing";
  for (int time = 0; time < 2; ++time) EXPECT_EQ(factory->LockServer(TRUE), S_OK);
  EXPECT_EQ(factory->LockServer(FALSE), S_OK);
  EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
  EXPECT_EQ(factory->LockServer(FALSE), S_OK);
  EXPECT_EQ(DllCanUnloadNow(), S_OK);

  // A script holds the automation object only; its code is the module's all the same.
  ComPtr<IDispatch> automation;
  EXPECT_EQ(factory->CreateInstance(nullptr, IID_PPV_ARGS(&automation)), S_OK);
  EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
  automation.Reset();
  EXPECT_EQ(DllCanUnloadNow(), S_OK);
}

TEST_F(Server, RegistersAndUnregistersAllOfItself) {
  ASSERT_EQ(DllRegisterServer(), S_OK);
  const std::pair<std::string, std::string> kClassNames[] = {
      {kTransformKey, "Varkon MF Video Stabilizer Transform"},
      {"CLSID\\{E2B6EDDD-38C5-11D5-91F6-00104BDB8FF9}", "Varkon MF Video Stabilizer Transform Properties"},
      {"CLSID\\{E2B6EDDC-38C5-11D5-91F6-00104BDB8FF9}", "Varkon MF Video Stabilizer Transform About"}};
  for (const auto& [key, name] : kClassNames) {
    EXPECT_EQ(Text(key), name);
    EXPECT_EQ(Text(key + "\\InprocServer32"), OwnPath());
    EXPECT_EQ(Text(key + "\\InprocServer32", "ThreadingModel"), "Both");
  }
  EXPECT_TRUE(IsListed(kFamilyCategory));
  EXPECT_TRUE(IsListed(MFT_CATEGORY_VIDEO_EFFECT));
  WCHAR* name = nullptr;
  ASSERT_EQ(MFTGetInfo(CLSID_VKFVStabilize, &name, nullptr, nullptr, nullptr, nullptr, nullptr), S_OK);
  EXPECT_STREQ(name, L"Varkon MF Video Stabilizer Transform");
  CoTaskMemFree(name);
  EXPECT_EQ(LoadRegisteredLibrary(), S_OK);

  ASSERT_EQ(DllRegisterServer(), S_OK) << "once more";
  ASSERT_EQ(DllUnregisterServer(), S_OK);
  for (const auto& [key, className] : kClassNames) EXPECT_EQ(Text(key), "(no key)");
  EXPECT_FALSE(IsListed(kFamilyCategory));
  EXPECT_FALSE(IsListed(MFT_CATEGORY_VIDEO_EFFECT));
  EXPECT_HRESULT_FAILED(LoadRegisteredLibrary());
  EXPECT_EQ(DllUnregisterServer(), S_OK) << "nothing is there";
  EXPECT_TRUE(m_assertions.empty());
}

TEST_F(Server, LeavesTheRegistrationOfAnotherCopyAlone) {
  // The versions of the registered file and of this module; 0 for none
  constexpr struct {
    std::uint64_t theirs, ours;
    bool stays;
  } kCases[] = {{0x0002'0000'0000'0000, 0x0001'FFFF'FFFF'FFFF, true},
                {0x0001'0002'0003'0005, 0x0001'0002'0003'0004, true},
                {0x0001'0002'0003'0004, 0x0001'0002'0003'0004, false},
                {0x0001'0002'0003'0003, 0x0001'0002'0003'0004, false},
                {0x0001'0000'FFFF'FFFF, 0x0001'0001'0000'0000, false},
                {0, 1, false},
                {1, 0, false}};
  std::string other;
  ASSERT_EQ(GetModulePath(GetModuleHandleA("kernel32.dll"), &other), S_OK);
  for (const auto& [theirs, ours, stays] : kCases) {
    VS_FIXEDFILEINFO info = {};
    std::uint64_t version = theirs, next = ours;
    const Replaced<__imp_VerQueryValueA> told([&](const void*, const char*, void** found, UINT* size) {
      info.dwFileVersionMS = static_cast<DWORD>(version >> 32);
      info.dwFileVersionLS = static_cast<DWORD>(version);
      *found = &info;
      *size = sizeof info;
      return std::exchange(version, next) != 0;
    });
    RegisterServer(other);
    EXPECT_EQ(DllRegisterServer(), S_OK);
    EXPECT_EQ(Text(kServerKey), stays ? other : OwnPath()) << theirs << " and " << ours;
    EXPECT_EQ(IsListed(kFamilyCategory), !stays);
    DllUnregisterServer();
    EXPECT_EQ(Text(kTransformKey), stays ? "" : "(no key)") << "who registered last takes it away";
    RegDeleteTreeA(HKEY_CLASSES_ROOT, kTransformKey);
  }
  // A missing file does not count. Another spelling of a path names the same file.
  const std::string own = OwnPath(), gone = "Z:\\gone\\vkfvstabilize.dll";
  for (const std::string& registered : {gone, std::string(own).insert(own.find_last_of('\\'), "\\.")}) {
    RegisterServer(registered);
    EXPECT_EQ(DllUnregisterServer(), S_OK);
    EXPECT_EQ(Text(kTransformKey), "(no key)") << registered;
    RegisterServer(registered);
    EXPECT_EQ(DllRegisterServer(), S_OK);
    EXPECT_EQ(Text(kServerKey), own);
  }
}

TEST_F(Server, StopsRegisteringAtTheFirstFailure) {
  // Two keys and three values for each of three classes, then two categories
  constexpr int kSteps = 17;
  const LSTATUS full = ERROR_DISK_FULL;
  const HRESULT failure = HRESULT_FROM_WIN32(full);
  int successes = 0;
  const Replaced<__imp_RegCreateKeyExA> key(&successes, full);
  const Replaced<__imp_RegSetValueExA> value(&successes, full);
  const Replaced<__imp_MFTRegister> transform(&successes, failure);
  for (int step = 0; step <= kSteps; ++step) {
    successes = step;
    EXPECT_EQ(DllRegisterServer(), step < kSteps ? failure : S_OK) << step;
    EXPECT_EQ(successes, step < kSteps ? -1 : 0) << "nothing is tried after that";
  }
  EXPECT_EQ(DllUnregisterServer(), S_OK);
  const Replaced<__imp_GetModuleFileNameA> longPath([](HMODULE, char*, DWORD size) { return size; });
  EXPECT_EQ(DllRegisterServer(), E_FAIL) << "a path that would be cut";
  EXPECT_EQ(DllUnregisterServer(), S_OK) << "whatever the single steps give";
}

TEST_F(Server, KeepsTheRegistrationWhenTheTypeLibraryFails) {
  std::string message;
  const Replaced<__imp_MessageBoxA> box(
      [&](HWND, const char* text, const char*, UINT) { return message = text, IDOK; });
  // A module without a type library
  DllMain(GetModuleHandleA("advapi32.dll"), DLL_PROCESS_ATTACH, nullptr);
  EXPECT_EQ(DllRegisterServer(), S_OK);
  EXPECT_NE(message.find("to register type library"), std::string::npos) << message;
  EXPECT_TRUE(IsListed(MFT_CATEGORY_VIDEO_EFFECT));
  EXPECT_EQ(DllUnregisterServer(), S_OK);
}

TEST_F(Server, SaysSoWhenItWasNeverLoaded) {
  DllMain(nullptr, DLL_PROCESS_ATTACH, nullptr);
  DllRegisterServer();
  EXPECT_EQ(m_assertions, std::vector<std::string>{"registry: g_hModule != NULL"});
}

}  // namespace
