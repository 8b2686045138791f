#include "ui/vkvstabilizeprp.h"

#include "common/debugreport.h"
#include "ui/resource.h"

using Microsoft::WRL::ComPtr;

namespace {

constexpr char kFile[] = "vkvstabilizeprp";

}  // namespace

HRESULT CVKVStabilizePrp::CreateInstance(IUnknown* outer, REFIID iid, void** object) {
  return CreatePage([]() -> CBasePropertyPage* { return new CVKVStabilizePrp; }, outer, iid, object);
}

CVKVStabilizePrp::CVKVStabilizePrp() : CBasePropertyPage(IDD_PROPERTY_PAGE, IDS_PROPERTY_PAGE_TITLE) {}

HRESULT CVKVStabilizePrp::OnConnect(IUnknown* object) {
  if (object) DebugAssert(m_spIVStabilize == nullptr, "(IVKFVStabilize*)m_spIVStabilize == NULL", kFile);
  m_spIVStabilize.Reset();
  if (!object) return S_OK;
  const HRESULT hr = object->QueryInterface(IID_PPV_ARGS(&m_spIVStabilize));
  DebugAssert(SUCCEEDED(hr), "FALSE", kFile);
  return SUCCEEDED(hr) ? S_OK : E_NOINTERFACE;
}

void CVKVStabilizePrp::OnActivate() {}
