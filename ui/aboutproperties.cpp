#include "ui/aboutproperties.h"

#include <bit>
#include <cstdint>
#include <cwchar>
#include <iterator>
#include <optional>
#include <string>

#include "common/comboundary.h"
#include "common/module.h"
#include "ui/resource.h"

HRESULT CAboutProperties::CreateInstance(IUnknown* outer, REFIID iid, void** object) {
  return CreatePage([]() -> CBasePropertyPage* { return new CAboutProperties; }, outer, iid, object);
}

CAboutProperties::CAboutProperties() : CBasePropertyPage(IDD_ABOUT, IDS_ABOUT_TITLE) {}

void CAboutProperties::OnActivate() {
  EmphasizeProduct();
  ShowVersion();
}

void CAboutProperties::EmphasizeProduct() {
  const HWND product = Control(IDC_ABOUT_PRODUCT);
  LOGFONTW font = {};
  const auto handle = std::bit_cast<HFONT>(SendMessageW(product, WM_GETFONT, 0, 0));
  if (GetObjectW(handle, sizeof font, &font) == 0) return;
  font.lfHeight = font.lfHeight * 3 / 2;
  font.lfWeight = FW_BOLD;
  m_font.reset(CreateFontIndirectW(&font));
  SendMessageW(product, WM_SETFONT, reinterpret_cast<WPARAM>(m_font.get()), FALSE);
}

// The line stays empty for a module without version information.
void CAboutProperties::ShowVersion() {
  ComBoundary([&] {
    std::string path;
    const HRESULT hr = GetModulePath(CurrentModule(), &path);
    if (FAILED(hr)) return hr;
    const std::optional<std::uint64_t> version = ReadFileVersion(path.c_str());
    if (!version) return S_FALSE;
    const auto part = [&](unsigned shift) { return static_cast<unsigned>(*version >> shift & 0xFFFF); };
    wchar_t text[64];
    std::swprintf(text, std::size(text), L"Version %u.%u.%u.%u", part(48), part(32), part(16), part(0));
    SetDlgItemTextW(Dialog(), IDC_ABOUT_VERSION, text);
    return S_OK;
  });
}
