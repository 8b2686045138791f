#include "ui/vkvstabilizeprp.h"

#include <algorithm>
#include <array>
#include <bit>
#include <commctrl.h>
#include <commdlg.h>
#include <cwchar>
#include <iterator>
#include <span>
#include <type_traits>

#include "common/debugreport.h"
#include "common/module.h"
#include "ui/resource.h"

using Microsoft::WRL::ComPtr;

namespace {

constexpr char kFile[] = "vkvstabilizeprp";

struct CheckBox {
  int id;
  LONG PageSettings::*field;
};

constexpr CheckBox kCheckBoxes[] = {
    {IDC_ENABLE, &PageSettings::enabled},
    {IDC_ROI_ENABLE, &PageSettings::roiEnabled},
    {IDC_ROTATION, &PageSettings::estimationCoefficients},
    {IDC_CROP_ENABLE, &PageSettings::cropEnabled},
};
static_assert(vkvstab_GLOBALESTIMATIONCOEFFICIENTS_X_Y == 0 &&
                  vkvstab_GLOBALESTIMATIONCOEFFICIENTS_X_Y_THETA == 1,
              "a check box is 0 or 1");

struct Item {
  const wchar_t* text;
  LONG value;
};

constexpr Item kQualities[] = {
    {L"1 (Highest)", vkvstab_GLOBALESTIMATIONQUALITY_1},
    {L"2", vkvstab_GLOBALESTIMATIONQUALITY_2},
    {L"3", vkvstab_GLOBALESTIMATIONQUALITY_3},
    {L"4 (Lowest)", vkvstab_GLOBALESTIMATIONQUALITY_4},
};
constexpr Item kLevels[] = {
    {L"1", vkvstab_PATHSMOOTHINGLEVEL_1}, {L"2", vkvstab_PATHSMOOTHINGLEVEL_2},
    {L"3", vkvstab_PATHSMOOTHINGLEVEL_3}, {L"4", vkvstab_PATHSMOOTHINGLEVEL_4},
    {L"5", vkvstab_PATHSMOOTHINGLEVEL_5}, {L"6", vkvstab_PATHSMOOTHINGLEVEL_6},
    {L"7", vkvstab_PATHSMOOTHINGLEVEL_7}, {L"8", vkvstab_PATHSMOOTHINGLEVEL_8},
};
constexpr Item kClippingOptions[] = {
    {L"Outline", vkvstab_CLIPPINGOPTIONS_OUTLINE},
    {L"Crop", vkvstab_CLIPPINGOPTIONS_CROP},
    {L"Crop and Stretch", vkvstab_CLIPPINGOPTIONS_CROPANDSTRETCH},
};
constexpr Item kInterpolations[] = {
    {L"Nearest", vkvstab_INTERPOLATIONTYPE_NEAREST},
    {L"Bilinear", vkvstab_INTERPOLATIONTYPE_BILINEAR},
};

struct DropDownList {
  int id;
  LONG PageSettings::*field;
  std::span<const Item> items;
};

constexpr DropDownList kLists[] = {
    {IDC_QUALITY, &PageSettings::estimationQuality, kQualities},
    {IDC_LEVEL, &PageSettings::smoothingLevel, kLevels},
    {IDC_CLIPPING_OPTION, &PageSettings::clippingOption, kClippingOptions},
    {IDC_INTERPOLATION, &PageSettings::interpolation, kInterpolations},
};

/// An edit control with its spin control, which parses the text.
struct NumberEdit {
  int id;
  int spinId;
  LONG PageSettings::*field;
  int maximum;
};

constexpr NumberEdit kNumbers[] = {
    {IDC_ROI_TOP, IDC_ROI_TOP_SPIN, &PageSettings::roiTop, 10000},
    {IDC_ROI_LEFT, IDC_ROI_LEFT_SPIN, &PageSettings::roiLeft, 10000},
    {IDC_ROI_BOTTOM, IDC_ROI_BOTTOM_SPIN, &PageSettings::roiBottom, 10000},
    {IDC_ROI_RIGHT, IDC_ROI_RIGHT_SPIN, &PageSettings::roiRight, 10000},
    {IDC_LEFT_RIGHT_MARGIN, IDC_LEFT_RIGHT_MARGIN_SPIN, &PageSettings::leftRightMargin, 4999},
    {IDC_TOP_BOTTOM_MARGIN, IDC_TOP_BOTTOM_MARGIN_SPIN, &PageSettings::topBottomMargin, 4999},
};

/// When a control is enabled. `Editable` means that processing is enabled and the standard engine is chosen;
/// `Region` and `Clipping` need the check box of their group as well.
enum class Needs { Enabled, AdvancedEngine, Editable, Region, Clipping };

struct EnablingRule {
  int id;
  Needs needs;
};

constexpr EnablingRule kEnablingRules[] = {
    {IDC_DEFAULTS, Needs::Enabled},
    {IDC_ENGINE_GROUP, Needs::Enabled},
    {IDC_STANDARD_ENGINE, Needs::Enabled},
    {IDC_ADVANCED_ENGINE, Needs::AdvancedEngine},

    {IDC_INPUT, Needs::Editable},
    {IDC_ROI_GROUP, Needs::Editable},
    {IDC_ROI_ENABLE, Needs::Editable},
    {IDC_ROI_TOP_CAPTION, Needs::Region},
    {IDC_ROI_TOP, Needs::Region},
    {IDC_ROI_TOP_SPIN, Needs::Region},
    {IDC_ROI_LEFT_CAPTION, Needs::Region},
    {IDC_ROI_LEFT, Needs::Region},
    {IDC_ROI_LEFT_SPIN, Needs::Region},
    {IDC_ROI_RIGHT_CAPTION, Needs::Region},
    {IDC_ROI_RIGHT, Needs::Region},
    {IDC_ROI_RIGHT_SPIN, Needs::Region},
    {IDC_ROI_BOTTOM_CAPTION, Needs::Region},
    {IDC_ROI_BOTTOM, Needs::Region},
    {IDC_ROI_BOTTOM_SPIN, Needs::Region},

    {IDC_PROCESSING, Needs::Editable},
    {IDC_ESTIMATION_GROUP, Needs::Editable},
    {IDC_ROTATION, Needs::Editable},
    {IDC_QUALITY_CAPTION, Needs::Editable},
    {IDC_QUALITY, Needs::Editable},
    {IDC_SMOOTHING_GROUP, Needs::Editable},
    {IDC_LEVEL_CAPTION, Needs::Editable},
    {IDC_LEVEL, Needs::Editable},

    {IDC_OUTPUT, Needs::Editable},
    {IDC_CLIPPING_GROUP, Needs::Editable},
    {IDC_CROP_ENABLE, Needs::Editable},
    {IDC_LEFT_RIGHT_MARGIN_CAPTION, Needs::Clipping},
    {IDC_LEFT_RIGHT_MARGIN, Needs::Clipping},
    {IDC_LEFT_RIGHT_MARGIN_SPIN, Needs::Clipping},
    {IDC_TOP_BOTTOM_MARGIN_CAPTION, Needs::Clipping},
    {IDC_TOP_BOTTOM_MARGIN, Needs::Clipping},
    {IDC_TOP_BOTTOM_MARGIN_SPIN, Needs::Clipping},
    {IDC_CLIPPING_OPTION, Needs::Clipping},
    {IDC_INTERPOLATION_CAPTION, Needs::Editable},
    {IDC_INTERPOLATION, Needs::Editable},
    {IDC_BACKGROUND, Needs::Editable},
    {IDC_SWATCH, Needs::Editable},
};

bool Holds(Needs needs, const PageSettings& settings) {
  const bool isEnabled = settings.enabled != 0;
  const bool isEditable = isEnabled && !settings.useAdvancedEngine;
  switch (needs) {
    case Needs::Enabled:
      return isEnabled;
    case Needs::AdvancedEngine:
      return isEnabled && settings.advancedEngineAvailable;
    case Needs::Editable:
      return isEditable;
    case Needs::Region:
      return isEditable && settings.roiEnabled != 0;
    case Needs::Clipping:
      return isEditable && settings.cropEnabled != 0;
  }
  return false;
}

template <class Table>
bool Contains(const Table& table, int id) {
  return std::any_of(std::begin(table), std::end(table), [&](const auto& row) { return row.id == id; });
}

/// Whether a notification means that a control's setting was changed.
bool IsChange(int id, UINT notification) {
  switch (notification) {
    case BN_CLICKED:
      return id == IDC_STANDARD_ENGINE || id == IDC_ADVANCED_ENGINE || Contains(kCheckBoxes, id);
    case CBN_SELCHANGE:
      return Contains(kLists, id);
    case EN_CHANGE:
      return Contains(kNumbers, id);
    default:
      return false;
  }
}

// Conversion between a property's value and the field that holds it

template <class Value>
LONG ToField(Value value) {
  if constexpr (std::is_same_v<Value, VARIANT_BOOL>)
    return value != VARIANT_FALSE;
  else
    return std::bit_cast<LONG>(value);
}

PageSettings::Color ToField(OLE_COLOR color) {
  return {GetRValue(color), GetGValue(color), GetBValue(color)};
}

template <class Value, class Field>
Value FromField(Field field) {
  if constexpr (std::is_same_v<Value, VARIANT_BOOL>)
    return field ? VARIANT_TRUE : VARIANT_FALSE;
  else
    return std::bit_cast<Value>(field);
}

COLORREF ToColorRef(const PageSettings::Color& color) { return RGB(color.red, color.green, color.blue); }

HRESULT ReadObject(IVKFVStabilize* object, PageSettings* settings) {
  using Object = IVKFVStabilize;
  HRESULT hr = S_OK;
  const auto get = [&]<class Interface, class Value, class Field>(
                       HRESULT (STDMETHODCALLTYPE Interface::*property)(Value*), Field* field) {
    Value value = {};
    if (SUCCEEDED(hr)) hr = (object->*property)(&value);
    if (SUCCEEDED(hr)) *field = static_cast<Field>(ToField(value));
  };
  get(&Object::get_Enabled, &settings->enabled);
  get(&Object::get_ROILeft, &settings->roiLeft);
  get(&Object::get_ROITop, &settings->roiTop);
  get(&Object::get_ROIRight, &settings->roiRight);
  get(&Object::get_ROIBottom, &settings->roiBottom);
  get(&Object::get_ROIEnabled, &settings->roiEnabled);
  get(&Object::get_GlobalEstimationCoefficients, &settings->estimationCoefficients);
  get(&Object::get_GlobalEstimationQuality, &settings->estimationQuality);
  get(&Object::get_PathSmoothingLevel, &settings->smoothingLevel);
  get(&Object::get_BkFillColor, &settings->background);
  get(&Object::get_LeftRightCropMargin, &settings->leftRightMargin);
  get(&Object::get_TopBottomCropMargin, &settings->topBottomMargin);
  get(&Object::get_CropEnabled, &settings->cropEnabled);
  get(&Object::get_InterpolationType, &settings->interpolation);
  get(&Object::get_ClippingOption, &settings->clippingOption);
  get(&Object::get_UseAdvancedEngine, &settings->useAdvancedEngine);
  get(&Object::get_AdvancedEngineAvailable, &settings->advancedEngineAvailable);
  return hr;
}

// AutoReconnect is off while the settings are written, so the output format changes at most once.
HRESULT WriteObject(IVKFVStabilize* object, PageSettings settings) {
  using Object = IVKFVStabilize;
  HRESULT hr = S_OK;
  const auto put = [&]<class Interface, class Value>(HRESULT (STDMETHODCALLTYPE Interface::*property)(Value),
                                                     auto field) {
    if (SUCCEEDED(hr)) hr = (object->*property)(FromField<Value>(field));
  };
  put(&Object::put_AutoReconnect, false);
  put(&Object::put_Enabled, settings.enabled);
  put(&Object::put_ROIEnabled, settings.roiEnabled);
  put(&Object::put_ROITop, settings.roiTop);
  put(&Object::put_ROILeft, settings.roiLeft);
  put(&Object::put_ROIBottom, settings.roiBottom);
  put(&Object::put_ROIRight, settings.roiRight);
  put(&Object::put_GlobalEstimationCoefficients, settings.estimationCoefficients);
  put(&Object::put_GlobalEstimationQuality, settings.estimationQuality);
  put(&Object::put_PathSmoothingLevel, settings.smoothingLevel);
  put(&Object::put_BkFillColor, ToColorRef(settings.background));
  put(&Object::put_CropEnabled, settings.cropEnabled);
  put(&Object::put_LeftRightCropMargin, settings.leftRightMargin);
  put(&Object::put_TopBottomCropMargin, settings.topBottomMargin);
  put(&Object::put_InterpolationType, settings.interpolation);
  put(&Object::put_ClippingOption, settings.clippingOption);
  put(&Object::put_UseAdvancedEngine, settings.useAdvancedEngine);
  put(&Object::put_AutoReconnect, true);
  return hr;
}

/// Sets a flag and clears it at the end of the scope.
class CRaisedFlag {
 public:
  explicit CRaisedFlag(bool& flag) : m_flag(flag) { m_flag = true; }
  ~CRaisedFlag() { m_flag = false; }
  CRaisedFlag(const CRaisedFlag&) = delete;
  CRaisedFlag& operator=(const CRaisedFlag&) = delete;

 private:
  bool& m_flag;
};

/// The custom colours of the colour dialog, kept as long as the module is loaded.
std::array<COLORREF, 16> g_customColors = [] {
  std::array<COLORREF, 16> colors;
  colors.fill(RGB(255, 255, 255));
  return colors;
}();

}  // namespace

HRESULT CVKVStabilizePrp::CreateInstance(IUnknown* outer, REFIID iid, void** object) {
  return CreatePage([]() -> CBasePropertyPage* { return new CVKVStabilizePrp; }, outer, iid, object);
}

CVKVStabilizePrp::CVKVStabilizePrp() : CBasePropertyPage(IDD_PROPERTY_PAGE, IDS_PROPERTY_PAGE_TITLE) {}

// The object

HRESULT CVKVStabilizePrp::OnConnect(IUnknown* object) {
  if (object) DebugAssert(!m_spIVStabilize, "(IVKFVStabilize*)m_spIVStabilize == NULL", kFile);
  m_spIVStabilize.Reset();
  if (!object) return S_OK;
  ComPtr<IVKFVStabilize> stabilize;
  if (FAILED(object->QueryInterface(IID_PPV_ARGS(&stabilize)))) {
    DebugAssert(false, "FALSE", kFile);
    return E_NOINTERFACE;
  }
  const HRESULT hr = ReadObject(stabilize.Get(), &m_settings);
  if (SUCCEEDED(hr)) m_spIVStabilize = stabilize;
  return hr;
}

HRESULT CVKVStabilizePrp::OnApply() {
  if (IsActive()) {
    CorrectNumbers();
    ReadControls();
  }
  // The host may replace the object during the writes; this reference keeps it alive.
  const ComPtr<IVKFVStabilize> object = m_spIVStabilize;
  const HRESULT hr = WriteObject(object.Get(), m_settings);
  return SUCCEEDED(hr) ? object->SaveAttributes() : hr;
}

// The controls

void CVKVStabilizePrp::OnActivate() {
  m_helpId = 0;
  ConnectSpins();
  FillControls();
  EnableControls();
}

void CVKVStabilizePrp::ConnectSpins() {
  const CRaisedFlag updating(m_updating);
  for (const NumberEdit& number : kNumbers) {
    const HWND spin = Control(number.spinId);
    SendMessageW(spin, UDM_SETBUDDY, reinterpret_cast<WPARAM>(Control(number.id)), 0);
    SendMessageW(spin, UDM_SETRANGE32, 0, number.maximum);
  }
}

void CVKVStabilizePrp::FillControls() {
  const CRaisedFlag updating(m_updating);
  for (const CheckBox& box : kCheckBoxes)
    CheckDlgButton(Dialog(), box.id, m_settings.*box.field == 1 ? BST_CHECKED : BST_UNCHECKED);
  CheckRadioButton(Dialog(), IDC_STANDARD_ENGINE, IDC_ADVANCED_ENGINE,
                   m_settings.useAdvancedEngine ? IDC_ADVANCED_ENGINE : IDC_STANDARD_ENGINE);
  for (const DropDownList& list : kLists) {
    const HWND control = Control(list.id);
    SendMessageW(control, CB_RESETCONTENT, 0, 0);
    for (const Item& item : list.items) {
      const auto index =
          static_cast<WPARAM>(SendMessageW(control, CB_ADDSTRING, 0, reinterpret_cast<LPARAM>(item.text)));
      SendMessageW(control, CB_SETITEMDATA, index, item.value);
      if (item.value == m_settings.*list.field) SendMessageW(control, CB_SETCURSEL, index, 0);
    }
  }
  for (const NumberEdit& number : kNumbers)
    SendMessageW(Control(number.spinId), UDM_SETPOS32, 0, m_settings.*number.field);
  ShowBackground();
}

void CVKVStabilizePrp::ReadControls() {
  for (const CheckBox& box : kCheckBoxes)
    m_settings.*box.field = IsDlgButtonChecked(Dialog(), box.id) == BST_CHECKED;
  m_settings.useAdvancedEngine = IsDlgButtonChecked(Dialog(), IDC_ADVANCED_ENGINE) == BST_CHECKED;
  for (const DropDownList& list : kLists) {
    const LRESULT index = SendMessageW(Control(list.id), CB_GETCURSEL, 0, 0);
    // Without a selection, the setting has a value that the list lacks. That value is kept.
    if (index == CB_ERR) continue;
    m_settings.*list.field =
        static_cast<LONG>(SendMessageW(Control(list.id), CB_GETITEMDATA, static_cast<WPARAM>(index), 0));
  }
  for (const NumberEdit& number : kNumbers)
    m_settings.*number.field = static_cast<LONG>(SendMessageW(Control(number.spinId), UDM_GETPOS32, 0, 0));
}

// A spin control keeps the last valid number of its edit control. An edit control that shows anything else is
// corrected to that number.
void CVKVStabilizePrp::CorrectNumbers() {
  const CRaisedFlag updating(m_updating);
  for (const NumberEdit& number : kNumbers) {
    wchar_t shown[32] = {}, valid[32] = {};
    const auto position = static_cast<int>(SendMessageW(Control(number.spinId), UDM_GETPOS32, 0, 0));
    std::swprintf(valid, std::size(valid), L"%d", position);
    GetDlgItemTextW(Dialog(), number.id, shown, static_cast<int>(std::size(shown)));
    if (std::wcscmp(shown, valid) != 0) SetDlgItemTextW(Dialog(), number.id, valid);
  }
}

void CVKVStabilizePrp::EnableControls() {
  for (const EnablingRule& rule : kEnablingRules)
    EnableWindow(Control(rule.id), Holds(rule.needs, m_settings));
}

void CVKVStabilizePrp::ShowBackground() {
  m_brush.reset(CreateSolidBrush(ToColorRef(m_settings.background)));
  InvalidateRect(Control(IDC_SWATCH), nullptr, TRUE);
}

// The messages

INT_PTR CVKVStabilizePrp::OnMessage(UINT message, WPARAM wParam, LPARAM lParam) {
  switch (message) {
    case WM_COMMAND:
      OnCommand(LOWORD(wParam), HIWORD(wParam));
      return TRUE;
    case WM_SETCURSOR:
      ShowHelp(GetDlgCtrlID(std::bit_cast<HWND>(wParam)));
      return FALSE;
    case WM_CTLCOLORSTATIC:
      return reinterpret_cast<INT_PTR>(BrushOf(std::bit_cast<HWND>(lParam), std::bit_cast<HDC>(wParam)));
    default:
      return FALSE;
  }
}

void CVKVStabilizePrp::OnCommand(int id, UINT notification) {
  if (m_updating || !IsActive()) return;
  if (IsChange(id, notification))
    OnChange();
  else if (id == IDC_DEFAULTS && notification == BN_CLICKED)
    OnDefaults();
  else if (id == IDC_BACKGROUND && notification == BN_CLICKED)
    OnBackground();
}

void CVKVStabilizePrp::OnChange() {
  SetDirty();
  if (!IsActive()) return;  // the site may have closed the dialog
  ReadControls();
  EnableControls();
}

void CVKVStabilizePrp::OnDefaults() {
  VARIANT_BOOL available = VARIANT_FALSE;
  const ComPtr<IVKFVStabilize> object = m_spIVStabilize;
  object->get_AdvancedEngineAvailable(&available);
  if (!IsActive()) return;  // the dialog may have been closed during the call
  m_settings = {};
  m_settings.advancedEngineAvailable = available != VARIANT_FALSE;
  FillControls();
  EnableControls();
  OnChange();
}

void CVKVStabilizePrp::OnBackground() {
  CHOOSECOLORA chooser = {};
  chooser.lStructSize = sizeof chooser;
  chooser.hwndOwner = Dialog();
  chooser.rgbResult = ToColorRef(m_settings.background);
  chooser.lpCustColors = g_customColors.data();
  chooser.Flags = CC_RGBINIT | CC_FULLOPEN;
  // The frame may close the page's dialog while the colour dialog is open.
  if (!ChooseColorA(&chooser) || !IsActive()) return;
  m_settings.background = ToField(chooser.rgbResult);
  ShowBackground();
  OnChange();
}

void CVKVStabilizePrp::ShowHelp(int id) {
  if (id == m_helpId) return;
  m_helpId = id;
  wchar_t text[128] = {};
  LoadStringW(CurrentModule(), static_cast<UINT>(id), text, static_cast<int>(std::size(text)));
  const BOOL bRet = SetDlgItemTextW(Dialog(), IDC_HELP_LINE, text);
  DebugAssert(bRet != FALSE, "bRet", kFile);
}

HBRUSH CVKVStabilizePrp::BrushOf(HWND control, HDC context) const {
  if (IsWindowEnabled(control)) return control == Control(IDC_SWATCH) ? m_brush.get() : nullptr;
  SetTextColor(context, GetSysColor(COLOR_GRAYTEXT));
  SetBkColor(context, GetSysColor(COLOR_3DFACE));
  return GetSysColorBrush(COLOR_3DFACE);
}
