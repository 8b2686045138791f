#include <windows.h>

#include <chrono>
#include <gtest/gtest.h>
#include <prsht.h>
#include <string>
#include <thread>

#include "automation/vkvstabilize.h"
#include "host/commandrun.h"
#include "host/transformmodule.h"
#include "scenes/scene.h"
#include "ui/resource.h"

using Microsoft::WRL::ComPtr;

namespace {

/// The user's settings of this process are its own.
class Settings : public ::testing::Test {
 protected:
  Settings() {
    HKEY hive = nullptr;
    EXPECT_EQ(RegCreateKeyA(HKEY_CURRENT_USER, m_hive.c_str(), &hive), ERROR_SUCCESS);
    EXPECT_EQ(RegOverridePredefKey(HKEY_CURRENT_USER, hive), ERROR_SUCCESS);
    RegCloseKey(hive);
  }
  ~Settings() override {
    RegOverridePredefKey(HKEY_CURRENT_USER, nullptr);
    RegDeleteTreeA(HKEY_CURRENT_USER, m_hive.c_str());
  }

  /// What a new transform starts with.
  template <class Function>
  static void WithSettings(Function function) {
    const ComSession session(COINIT_MULTITHREADED);
    const TransformModule module(false);
    ComPtr<IVKFVStabilize> settings;
    ASSERT_EQ(module.CreateTransform().As(&settings), S_OK);
    function(settings.Get());
  }

 private:
  const std::string m_hive = "SOFTWARE\\VStabilizeTests." + std::to_string(GetCurrentProcessId());
};

struct PropertyFrame {
  HWND frame = nullptr, enable = nullptr;
};

/// The frame of this process that shows the property page.
PropertyFrame FindFrame() {
  PropertyFrame found;
  EnumWindows(
      [](HWND window, LPARAM result) {
        DWORD process = 0;
        GetWindowThreadProcessId(window, &process);
        if (process != GetCurrentProcessId() || !IsWindowVisible(window)) return TRUE;
        auto& wanted = *reinterpret_cast<PropertyFrame*>(result);
        wanted.frame = window;
        EnumChildWindows(
            window,
            [](HWND child, LPARAM control) {
              if (GetDlgCtrlID(child) == IDC_ENABLE) *reinterpret_cast<HWND*>(control) = child;
              return TRUE;
            },
            reinterpret_cast<LPARAM>(&wanted.enable));
        return wanted.enable == nullptr ? TRUE : FALSE;
      },
      reinterpret_cast<LPARAM>(&found));
  return found;
}

/// Switches processing off on the page, then leaves the frame without applying that.
void SwitchOffAndCancel() {
  PropertyFrame found;
  for (int i = 0; i < 1000 && !found.enable; ++i, found = FindFrame())
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_NE(found.enable, nullptr) << "no property page came up";
  if (found.enable) SendMessageA(found.enable, BM_CLICK, 0, 0);
  if (found.frame) PostMessageA(found.frame, PSM_PRESSBUTTON, PSBTN_CANCEL, 0);
}

// Wine's frame never hears that a page has changed, so nothing can be applied in it; what applying does is
// tested on the page itself.
TEST_F(Settings, ShowTheirPagesAndStayWhenCancelled) {
  std::thread person(SwitchOffAndCancel);
  const Outcome outcome = RunWords("--settings");
  person.join();
  EXPECT_EQ(outcome.code, 0) << outcome.messages;
  WithSettings([](IVKFVStabilize* settings) {
    VARIANT_BOOL enabled = VARIANT_FALSE;
    EXPECT_EQ(settings->get_Enabled(&enabled), S_OK);
    EXPECT_EQ(enabled, VARIANT_TRUE);
  });
}

TEST_F(Settings, SavedForPipelinesDoNotReachTheCommand) {
  WithSettings([](IVKFVStabilize* settings) {
    EXPECT_EQ(settings->put_Enabled(VARIANT_FALSE), S_OK);
    EXPECT_EQ(settings->put_LeftRightCropMargin(9), S_OK);
    EXPECT_EQ(settings->SaveAttributes(), S_OK);
  });
  const Bytes clip = RandomBytes(std::size_t{64} * 48 * 3 * 9, 1);
  const std::string words = "--size 64x48 --window 4 --crop 0,3 --clip crop --engine ";
  EXPECT_TRUE(RunWords(words + "transform", clip).output == RunWords(words + "kernel", clip).output);
}

}  // namespace
