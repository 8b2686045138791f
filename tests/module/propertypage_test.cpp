#include "engine/testenvironment.h"
#include "mft/mft_vstabilize.h"
#include "ui/aboutproperties.h"
#include "ui/vkvstabilizeprp.h"

using Microsoft::WRL::ComPtr;

namespace {

using CreateFunction = HRESULT (*)(IUnknown*, REFIID, void**);

TEST(Pages, OpenAndClose) {
  ComPtr<IUnknown> transform;
  ASSERT_EQ(CMFTVStabilize::CreateInstance(nullptr, IID_PPV_ARGS(&transform)), S_OK);
  const HWND frame = CreateWindowW(L"STATIC", L"frame", WS_OVERLAPPEDWINDOW | WS_VISIBLE, 0, 0, 500, 600,
                                   nullptr, nullptr, nullptr, nullptr);
  for (const CreateFunction create : {&CVKVStabilizePrp::CreateInstance, &CAboutProperties::CreateInstance}) {
    ComPtr<IPropertyPage> page;
    ASSERT_EQ(create(nullptr, IID_PPV_ARGS(&page)), S_OK);
    PROPPAGEINFO info = {};
    EXPECT_EQ(page->GetPageInfo(&info), S_OK);
    EXPECT_GT(info.size.cx, 100);
    CoTaskMemFree(info.pszTitle);
    EXPECT_EQ(page->SetObjects(1, transform.GetAddressOf()), S_OK);
    const RECT rect = {0, 0, info.size.cx, info.size.cy};
    EXPECT_EQ(page->Activate(frame, &rect, FALSE), S_OK);
    EXPECT_EQ(page->Deactivate(), S_OK);
    EXPECT_EQ(page->SetObjects(0, nullptr), S_OK);
    EXPECT_EQ(page.Reset(), 0U);
  }
  DestroyWindow(frame);
}

}  // namespace
