#include <windows.h>

#include <gtest/gtest.h>
#include <olectl.h>
#include <string>

#include "automation/vkvstabilize.h"
#include "engine/replaced.h"
#include "engine/userhive.h"
#include "host/commandrun.h"
#include "host/transformmodule.h"
#include "scenes/scene.h"

using Microsoft::WRL::ComPtr;

extern "C" decltype(&OleCreatePropertyFrame) __imp_OleCreatePropertyFrame;

namespace {

TEST(Settings, OfferTheirPagesToTheSystemsFrame) {
  const UserHive hive;
  HRESULT answer = S_OK;
  ULONG shown = 0;
  const Replaced<__imp_OleCreatePropertyFrame> frame([&](HWND, UINT, UINT, const wchar_t*, ULONG objects,
                                                         IUnknown** object, ULONG pages, CLSID* classes, LCID,
                                                         DWORD, void*) {
    EXPECT_EQ(objects, 1U);
    for (ULONG i = 0; i < pages; ++i) {
      ComPtr<IPropertyPage> page;
      const HRESULT hr = CoCreateInstance(classes[i], nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&page));
      if (FAILED(hr)) return hr;
      EXPECT_EQ(page->SetObjects(1, object), S_OK);
      shown += SUCCEEDED(page->SetObjects(0, nullptr));
    }
    return answer;
  });
  const Outcome outcome = RunWords("--settings");
  EXPECT_EQ(outcome.code, 0) << outcome.messages;
  EXPECT_EQ(shown, 2U);
  answer = E_ABORT;
  EXPECT_NE(RunWords("--settings").messages.find("cannot show the property pages"), std::string::npos);
}

TEST(Settings, SavedForPipelinesDoNotReachTheCommand) {
  const UserHive hive;
  {
    const ComSession session(COINIT_MULTITHREADED);
    const TransformModule module(false);
    ComPtr<IVKFVStabilize> settings;
    ASSERT_EQ(module.CreateTransform().As(&settings), S_OK);
    EXPECT_EQ(settings->put_Enabled(VARIANT_FALSE), S_OK);
    EXPECT_EQ(settings->put_LeftRightCropMargin(9), S_OK);
    EXPECT_EQ(settings->SaveAttributes(), S_OK);
  }
  const Bytes clip = RandomBytes(std::size_t{64} * 48 * 3 * 9, 1);
  const std::string words = "--size 64x48 --window 4 --crop 0,3 --clip crop --engine ";
  EXPECT_TRUE(RunWords(words + "transform", clip).output == RunWords(words + "kernel", clip).output);
}

}  // namespace
