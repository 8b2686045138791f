#pragma once

#include <windows.h>

#include "ui/basepropertypage.h"
#include "ui/gdiobject.h"

/// Shows the product's name and this module's version. Takes any object and leaves it alone.
class CAboutProperties final : public CBasePropertyPage {
 public:
  /// Creation function of the class table.
  static HRESULT CreateInstance(IUnknown* outer, REFIID iid, void** object);

 private:
  CAboutProperties();

  HRESULT OnConnect(IUnknown*) override { return S_OK; }
  void OnActivate() override;
  void ShowVersion();
  void EmphasizeProduct();

  CGdiObject<HFONT> m_font;
};
