#pragma once

#include <windows.h>

#include <wrl/client.h>

#include "automation/vkvstabilize.h"
#include "ui/basepropertypage.h"
#include "ui/gdiobject.h"

/// The settings that the page edits. Flags are 0 or 1; an enumeration may hold a value without a constant.
struct PageSettings {
  struct Color {
    BYTE red = 0, green = 0, blue = 0;
  };

  LONG enabled = 1;
  LONG roiLeft = 0;
  LONG roiTop = 0;
  LONG roiRight = 10000;
  LONG roiBottom = 10000;
  LONG roiEnabled = 0;
  LONG estimationCoefficients = vkvstab_GLOBALESTIMATIONCOEFFICIENTS_X_Y;
  LONG estimationQuality = vkvstab_GLOBALESTIMATIONQUALITY_3;
  LONG smoothingLevel = vkvstab_PATHSMOOTHINGLEVEL_6;
  Color background;
  LONG leftRightMargin = 0;
  LONG topBottomMargin = 0;
  LONG cropEnabled = 0;
  LONG interpolation = vkvstab_INTERPOLATIONTYPE_BILINEAR;
  LONG clippingOption = vkvstab_CLIPPINGOPTIONS_OUTLINE;
  bool useAdvancedEngine = false;
  bool advancedEngineAvailable = false;
};

/// The property page for the settings of a stabilizer. Apply writes them to the object and saves them in the
/// registry.
class CVKVStabilizePrp final : public CBasePropertyPage {
 public:
  /// Creates a page, for the module's class table.
  static HRESULT CreateInstance(IUnknown* outer, REFIID iid, void** object);

 private:
  CVKVStabilizePrp();

  HRESULT OnConnect(IUnknown* object) override;
  void OnActivate() override;
  HRESULT OnApply() override;
  INT_PTR OnMessage(UINT message, WPARAM wParam, LPARAM lParam) override;

  void ConnectSpins();
  void FillControls();
  void ReadControls();
  void EnableControls();
  void CorrectNumbers();
  void ShowBackground();

  void OnCommand(int id, UINT notification);
  void OnChange();
  void OnDefaults();
  void OnBackground();
  void ShowHelp(int id);
  HBRUSH BrushOf(HWND control, HDC context) const;

  Microsoft::WRL::ComPtr<IVKFVStabilize> m_spIVStabilize;
  PageSettings m_settings;
  bool m_updating = false;  // while the page itself changes controls
  int m_helpId = 0;
  CGdiObject<HBRUSH> m_brush;
};
