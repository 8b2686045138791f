#include <windows.h>

#include <chrono>
#include <gtest/gtest.h>
#include <prsht.h>
#include <thread>

#include "automation/vkvstabilize.h"
#include "engine/userhive.h"
#include "host/commandrun.h"
#include "host/transformmodule.h"
#include "support/scene.h"
#include "ui/resource.h"

using Microsoft::WRL::ComPtr;

namespace {

/// What a new transform starts with.
template <class Function>
void WithSettings(Function function) {
  const ComSession session(COINIT_MULTITHREADED);
  const TransformModule module(false);
  ComPtr<IVKFVStabilize> settings;
  ASSERT_EQ(module.CreateTransform().As(&settings), S_OK);
  function(settings.Get());
}

/// The windows of this process that show the page: its check box, and the frame around it.
struct Found {
  HWND frame = nullptr, enable = nullptr;
};

Found FindPage() {
  Found found;
  const auto look = [](HWND window, LPARAM result) -> BOOL {
    auto& wanted = *reinterpret_cast<Found*>(result);
    DWORD process = 0;
    GetWindowThreadProcessId(window, &process);
    if (process != GetCurrentProcessId() || !IsWindowVisible(window)) return TRUE;
    wanted.frame = window;
    EnumChildWindows(
        window,
        [](HWND child, LPARAM enable) -> BOOL {
          if (GetDlgCtrlID(child) == IDC_ENABLE) *reinterpret_cast<HWND*>(enable) = child;
          return TRUE;
        },
        reinterpret_cast<LPARAM>(&wanted.enable));
    return wanted.enable == nullptr;
  };
  EnumWindows(look, reinterpret_cast<LPARAM>(&found));
  return found;
}

/// Switches processing off on the page, then leaves the frame without applying that.
void SwitchOffAndCancel() {
  Found found;
  for (int i = 0; i < 1000 && !found.enable; ++i, found = FindPage())
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_NE(found.enable, nullptr) << "no property page came up";
  SendMessageA(found.enable, BM_CLICK, 0, 0);
  PostMessageA(found.frame, PSM_PRESSBUTTON, PSBTN_CANCEL, 0);
}

// Wine's frame never hears that a page has changed, so nothing can be applied in it; what applying does is
// tested on the page itself.
TEST(Settings, ShowTheirPagesAndStayWhenCancelled) {
  const UserHive hive;
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

TEST(Settings, SavedForPipelinesDoNotReachTheCommand) {
  const UserHive hive;
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
