#include "ui/aboutproperties.h"

#include "ui/resource.h"

HRESULT CAboutProperties::CreateInstance(IUnknown* outer, REFIID iid, void** object) {
  return CreatePage([]() -> CBasePropertyPage* { return new CAboutProperties; }, outer, iid, object);
}

CAboutProperties::CAboutProperties() : CBasePropertyPage(IDD_ABOUT, IDS_ABOUT_TITLE) {}

HRESULT CAboutProperties::OnConnect(IUnknown*) { return S_OK; }

void CAboutProperties::OnActivate() {}
