#pragma once

#include <windows.h>

#include "ui/basepropertypage.h"
#include "ui/gdiobject.h"

/// Tells what the product is and which version of it this module is. Takes any object, and does nothing to
/// it.
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
