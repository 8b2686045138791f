#include "common/messagebox.h"
#include "common/module.h"
#include "common/typelibrary.h"
#include "testenvironment.h"

extern "C" decltype(&RegisterTypeLib) __imp_RegisterTypeLib;

namespace {

class CommonTest : public EngineTest {};

TEST_F(CommonTest, FindsTheModuleItsVersionAndItsHelp) {
  EXPECT_EQ(CurrentModule(), GetModuleHandleA(nullptr));
  std::string path;
  ASSERT_EQ(GetModulePath(GetModuleHandleA("kernel32.dll"), &path), S_OK);
  EXPECT_GT(ReadFileVersion(path.c_str()).value_or(0), 0U);
  EXPECT_EQ(GetModulePath(reinterpret_cast<HMODULE>(0x10000), &path), E_FAIL);
  for (const DWORD length : {MAX_PATH - 1, MAX_PATH}) {
    const Replaced<__imp_GetModuleFileNameA> longPath([&](HMODULE, char*, DWORD) { return length; });
    EXPECT_EQ(GetModulePath(nullptr, &path), length < MAX_PATH ? S_OK : E_FAIL) << "truncated";
    EXPECT_EQ(path.size(), length % MAX_PATH);
  }

  std::wstring wide;
  ASSERT_EQ(GetModulePath(CurrentModule(), &wide), S_OK);
  ASSERT_EQ(GetModulePath(CurrentModule(), &path), S_OK);
  EXPECT_EQ(ReadFileVersion(path.c_str()), std::nullopt) << "a program without a version resource";
  EXPECT_EQ(ReadFileVersion("Z:\\nowhere.dll"), std::nullopt);

  EXPECT_EQ(FindHelpFile(CurrentModule()), L"");
  const std::wstring help = wide.substr(0, wide.size() - 4) + L".chm";
  CloseHandle(CreateFileW(help.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
  EXPECT_EQ(FindHelpFile(CurrentModule()), help);
  DeleteFileW(help.c_str());
}

TEST_F(CommonTest, RegistersTheTypeLibraryAndSaysWhyNot) {
  std::string message, path;
  const Replaced<__imp_MessageBoxA> box([&](HWND, const char* text, const char* caption, UINT) {
    message = std::string(caption) + ": " + text;
    return IDOK;
  });
  EXPECT_EQ(RegisterModuleTypeLibrary(CurrentModule(), true), S_OK);
  EXPECT_EQ(message, "");
  EXPECT_EQ(UnRegisterTypeLib(settingskeys::EngineKey(0xE2B6EDDB), 1, 0, 0x409, SYS_WIN64), S_OK);

  const HMODULE without = GetModuleHandleA("kernel32.dll");
  ASSERT_EQ(GetModulePath(without, &path), S_OK);
  const HRESULT hr = RegisterModuleTypeLibrary(without, false);
  EXPECT_HRESULT_FAILED(hr);
  EXPECT_EQ(message, "") << "messages were not wanted";
  EXPECT_EQ(RegisterModuleTypeLibrary(without, true), hr);
  EXPECT_EQ(message, "Error: Failed " + DescribeError(hr) + " to register type library: " + path);
  char trace[128];
  std::snprintf(trace, sizeof trace, "\nRegisterModuleTypeLibrary: LoadTypeLib failed 0x%08x",
                static_cast<unsigned>(hr));
  EXPECT_EQ(m_traces, std::vector<std::string>(2, trace));
  EXPECT_EQ(DescribeError(static_cast<HRESULT>(0x8ABCDEF0)), "0x8abcdef0");

  const Replaced<__imp_RegisterTypeLib> refused([](auto...) { return TYPE_E_REGISTRYACCESS; });
  EXPECT_EQ(RegisterModuleTypeLibrary(CurrentModule(), true), TYPE_E_REGISTRYACCESS);
  ASSERT_EQ(GetModulePath(CurrentModule(), &path), S_OK);
  EXPECT_EQ(message, "Error: Failed to register type library: " + path);
  EXPECT_EQ(m_traces.back(), "\nRegisterModuleTypeLibrary: RegisterTypeLib failed 0x8002801c");
}

}  // namespace
