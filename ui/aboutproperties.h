#pragma once

#include <windows.h>

#include "ui/basepropertypage.h"

/// Tells what the product is and which version of it this module is.
class CAboutProperties final : public CBasePropertyPage {
 public:
  /// Creation function of the class table.
  static HRESULT CreateInstance(IUnknown* outer, REFIID iid, void** object);

 private:
  CAboutProperties();

  HRESULT OnConnect(IUnknown* object) override;
  void OnActivate() override;
};
