#pragma once

#include <windows.h>

#include "ui/basepropertypage.h"
#include "ui/gdiobject.h"

/// The page that shows the product's name and the module's version. It accepts any object and uses none.
class CAboutProperties final : public CBasePropertyPage {
 public:
  /// Creates a page, for the module's class table.
  static HRESULT CreateInstance(IUnknown* outer, REFIID iid, void** object);

 private:
  CAboutProperties();

  HRESULT OnConnect(IUnknown*) override { return S_OK; }
  void OnActivate() override;
  void ShowVersion();
  void EmphasizeProduct();

  CGdiObject<HFONT> m_font;
};
