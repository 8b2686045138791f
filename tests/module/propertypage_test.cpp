#include <windows.h>

#include <commctrl.h>
#include <commdlg.h>
#include <functional>
#include <map>
#include <olectl.h>
#include <sstream>
#include <utility>

#include "engine/testenvironment.h"
#include "mft/mft_vstabilize.h"
#include "ui/aboutproperties.h"
#include "ui/resource.h"
#include "ui/vkvstabilizeprp.h"

using Microsoft::WRL::ComPtr;

extern "C" {
extern decltype(&ChooseColorA) __imp_ChooseColorA;
extern decltype(&GetFileVersionInfoSizeA) __imp_GetFileVersionInfoSizeA;
}

namespace {

/// A host's end of a page.
class Site final : public IPropertyPageSite {
 public:
  STDMETHODIMP QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
  STDMETHODIMP_(ULONG) AddRef() override { return ++references; }
  STDMETHODIMP_(ULONG) Release() override { return --references; }
  STDMETHODIMP OnStatusChange(DWORD flags) override {
    EXPECT_EQ(flags, static_cast<DWORD>(PROPPAGESTATUS_DIRTY));
    ++changes;
    if (onChange) onChange();
    return S_OK;
  }
  STDMETHODIMP GetLocaleID(LCID*) override { return E_NOTIMPL; }
  STDMETHODIMP GetPageContainer(IUnknown**) override { return E_NOTIMPL; }
  STDMETHODIMP TranslateAccelerator(MSG*) override {
    ++keys;
    return takesKeys ? S_OK : S_FALSE;
  }

  ULONG references = 1;
  int changes = 0, keys = 0;
  bool takesKeys = false;
  std::function<void()> onChange;
};

#define FOR_EACH_SETTING(DO)                                             \
  DO(Enabled, VARIANT_BOOL)                                              \
  DO(ROIEnabled, VARIANT_BOOL)                                           \
  DO(ROITop, LONG)                                                       \
  DO(ROILeft, LONG)                                                      \
  DO(ROIBottom, LONG)                                                    \
  DO(ROIRight, LONG)                                                     \
  DO(GlobalEstimationCoefficients, vkvstab_GlobalEstimationCoefficients) \
  DO(GlobalEstimationQuality, vkvstab_GlobalEstimationQuality)           \
  DO(PathSmoothingLevel, vkvstab_PathSmoothingLevel)                     \
  DO(BkFillColor, OLE_COLOR)                                             \
  DO(CropEnabled, VARIANT_BOOL)                                          \
  DO(LeftRightCropMargin, LONG)                                          \
  DO(TopBottomCropMargin, LONG)                                          \
  DO(InterpolationType, vkvstab_InterpolationType)                       \
  DO(ClippingOption, vkvstab_enumClippingOption)                         \
  DO(UseAdvancedEngine, VARIANT_BOOL)                                    \
  DO(AutoReconnect, VARIANT_BOOL)

/// All settings of an object, in the order above.
std::vector<long> SettingsOf(IVKFVStabilize* settings) {
  std::vector<long> values;
#define READ(Name, Type)                               \
  Type value##Name = {};                               \
  EXPECT_EQ(settings->get_##Name(&value##Name), S_OK); \
  values.push_back(static_cast<long>(value##Name));
  FOR_EACH_SETTING(READ)
#undef READ
  return values;
}

/// Records what is put. It can fail, and call back.
class Recorder final : public IVKFVStabilize {
 public:
  std::string calls, failing;
  std::function<void()> onCall;

  STDMETHODIMP QueryInterface(REFIID, void** object) override {
    *object = static_cast<IVKFVStabilize*>(this);
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return 1; }
  STDMETHODIMP_(ULONG) Release() override { return 1; }
  STDMETHODIMP GetTypeInfoCount(UINT*) override { return E_NOTIMPL; }
  STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
  STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
  STDMETHODIMP Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override {
    return E_NOTIMPL;
  }

#define RECORD(Name, Type)                         \
  STDMETHODIMP get_##Name(Type* pVal) override {   \
    *pVal = {};                                    \
    return failing == "get" #Name ? E_FAIL : S_OK; \
  }                                                \
  STDMETHODIMP put_##Name(Type newVal) override { return Record(#Name, static_cast<long>(newVal)); }
  FOR_EACH_SETTING(RECORD)
#undef RECORD
  STDMETHODIMP get_AdvancedEngineAvailable(VARIANT_BOOL* pVal) override {
    if (onCall) onCall();
    *pVal = VARIANT_TRUE;
    return S_OK;
  }
  STDMETHODIMP ResetToDefaults() override { return Record("ResetToDefaults", 0); }
  STDMETHODIMP LoadAttributes() override { return Record("LoadAttributes", 0); }
  STDMETHODIMP SaveAttributes() override { return Record("SaveAttributes", 0); }

 private:
  HRESULT Record(const char* name, long value) {
    calls += name + ("=" + std::to_string(value)) + " ";
    if (onCall) onCall();
    return failing == name ? E_ACCESSDENIED : S_OK;
  }
};

/// For each control its number, kind, caption or content, range of a spin, and help text. The kind tells when
/// the control is enabled: A always, E when processing is, S with the standard engine, R with a region, C
/// with clipping, X when there is an advanced engine.
constexpr char kControls[] = R"(1057 A &Enable Processing|Check to enable video stabilization
1058 E &Defaults|Set options to default values
1101 E &Engine|
1059 E Standard Engine|Use Standard Stabilization Engine
1060 X Advanced Engine|Use Advanced Stabilization Engine
1028 S Input|Input video pre-processing options
1102 S &Region Of Interest|
1040 S &Enable|Check to enable region of interest processing
1103 R &Top:|
1029 R 0|Region of interest for processing - top
1046 R 0-10000|Region of interest for processing - top
1104 R &Left:|
1030 R 0|Region of interest for processing - left
1045 R 0-10000|Region of interest for processing - left
1105 R &Right:|
1032 R 10000|Region of interest for processing - right
1043 R 0-10000|Region of interest for processing - right
1106 R &Bottom:|
1031 R 10000|Region of interest for processing - bottom
1044 R 0-10000|Region of interest for processing - bottom
1027 S Processing|Processing phase options
1107 S &Estimation|
1050 S &Correct undesired camera rotations|Check to to fix camera undesired rotations
1108 S &Quality:|
1018 S 3|The higher the quality, the slower is the processing
1109 S &Smoothing|
1110 S &Level:|
1020 S 6|Select higher level for smoother camera movement results
1033 S Output|Pos-processing phase options
1111 S Clipping|
1042 S &Enable|Check to enable clipping
1112 C &Left/Right Margin:|
1035 C 0|Set the margins from left and right sides
1047 C 0-4999|Set the margins from left and right sides
1113 C Top/&Bottom Margin:|
1037 C 0|Set the margins from top and bottom sides
1048 C 0-4999|Set the margins from top and bottom sides
1052 C Outline|Select clipping option: outline, crop, crop and stretch
1114 S &Interpolation type:|
1039 S Bilinear|Set the interpolation type for sizing and rotating
1034 S &Background|Click to change background color
1036 S |The background color
)";

/// A page of a real transform in a host's frame.
class PropertyPage : public EngineTest {
 protected:
  PropertyPage() {
    s_crashes = 0;
    EXPECT_EQ(CMFTVStabilize::CreateInstance(nullptr, IID_PPV_ARGS(&m_pObject)), S_OK);
    EXPECT_EQ(m_pObject.As(&m_pSettings), S_OK);
    m_frame = CreateWindowExW(WS_EX_CONTROLPARENT, L"STATIC", L"", WS_POPUP | WS_VISIBLE, 0, 0, 600, 600,
                              nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(CVKVStabilizePrp::CreateInstance(nullptr, IID_PPV_ARGS(&m_pPage)), S_OK);
    EXPECT_EQ(m_pPage->SetPageSite(&m_site), S_OK);
  }
  ~PropertyPage() override {
    if (m_pPage) {
      m_pPage->Deactivate();
      m_pPage->SetObjects(0, nullptr);
      m_pPage->SetPageSite(nullptr);
      EXPECT_EQ(m_pPage.Reset(), 0U);
    }
    EXPECT_EQ(m_site.references, 1U);
    DestroyWindow(m_frame);
    m_pSettings.Reset();
    EXPECT_EQ(m_pObject.Reset(), 0U);
    RemoveVectoredExceptionHandler(m_crashHandler);
    EXPECT_EQ(s_crashes, 0);
  }

  /// The system hides crashes that happen in a dialog's procedure.
  static LONG CALLBACK CountCrash(EXCEPTION_POINTERS* exception) {
    if (exception->ExceptionRecord->ExceptionCode == EXCEPTION_ACCESS_VIOLATION) ++s_crashes;
    return EXCEPTION_CONTINUE_SEARCH;
  }

  void Connect(IUnknown* object) { ASSERT_EQ(m_pPage->SetObjects(1, &object), S_OK); }

  void Open() {
    const RECT rect = {5, 10, 505, 510};
    ASSERT_EQ(m_pPage->Activate(m_frame, &rect, FALSE), S_OK);
    m_dialog = GetWindow(m_frame, GW_CHILD);
  }
  void ConnectAndOpen() {
    Connect(m_pSettings.Get());
    Open();
  }

  HWND Control(int id) const { return GetDlgItem(m_dialog, id); }

  // What a person does

  void Click(int id) {
    ASSERT_TRUE(IsWindowEnabled(Control(id))) << id;
    SendMessageW(Control(id), BM_CLICK, 0, 0);
  }
  void Select(int id) {
    SetFocus(Control(id));
    SendMessageW(Control(id), EM_SETSEL, 0, -1);
  }
  void Type(int id, const char* text) {
    Select(id);
    SendMessageW(Control(id), WM_CHAR, VK_BACK, 0);
    for (; *text; ++text) SendMessageW(Control(id), WM_CHAR, static_cast<WPARAM>(*text), 0);
  }
  void Paste(int id, const char* text) {
    Select(id);
    SendMessageA(Control(id), EM_REPLACESEL, TRUE, reinterpret_cast<LPARAM>(text));
  }
  void Spin(int spinId, bool up) {
    RECT rect = {};
    GetClientRect(Control(spinId), &rect);
    const LPARAM at = MAKELPARAM(rect.right / 2, up ? 2 : rect.bottom - 2);
    SendMessageW(Control(spinId), WM_LBUTTONDOWN, MK_LBUTTON, at);
    SendMessageW(Control(spinId), WM_LBUTTONUP, 0, at);
  }
  void Choose(int id, const std::string& item) {
    const auto count = SendMessageW(Control(id), CB_GETCOUNT, 0, 0);
    for (LRESULT i = 0; i < count; ++i) SendMessageW(Control(id), WM_KEYDOWN, VK_UP, 0);
    for (LRESULT i = 0; i < count && Text(id) != item; ++i) SendMessageW(Control(id), WM_KEYDOWN, VK_DOWN, 0);
    EXPECT_EQ(Text(id), item);
  }
  void PointAt(int id) {
    const HWND window = id == 0 ? m_dialog : Control(id);
    SendMessageW(m_dialog, WM_SETCURSOR, reinterpret_cast<WPARAM>(window),
                 MAKELPARAM(HTCLIENT, WM_MOUSEMOVE));
  }
  /// Presses a key where the focus is, and gives the page's result.
  HRESULT Press(UINT message, WPARAM key) {
    MSG pressed = {GetFocus(), message, key, 0, 0, {}};
    return m_pPage->TranslateAccelerator(&pressed);
  }

  // What a person sees

  std::string Text(int id) const {
    char text[256] = {};
    GetDlgItemTextA(m_dialog, id, text, sizeof text);
    return text;
  }
  bool IsChecked(int id) const { return IsDlgButtonChecked(m_dialog, id) == BST_CHECKED; }
  /// The kinds that are enabled. Expects all controls of a kind to be enabled, or none.
  std::string EnabledKinds() const {
    std::map<char, bool> kinds;
    std::istringstream rows(kControls);
    for (std::string row; std::getline(rows, row);) {
      const bool isEnabled = IsWindowEnabled(Control(std::stoi(row)));
      EXPECT_EQ(kinds.try_emplace(row[5], isEnabled).first->second, isEnabled) << row;
    }
    std::string enabled;
    for (const auto& [kind, isEnabled] : kinds)
      if (isEnabled) enabled += kind;
    return enabled;
  }

  template <class Value>
  long Get(HRESULT (STDMETHODCALLTYPE IVKFVStabilize1::*property)(Value*)) const {
    Value value = {};
    EXPECT_EQ((m_pSettings.Get()->*property)(&value), S_OK);
    return static_cast<long>(value);
  }
  std::vector<long> Settings() const { return SettingsOf(m_pSettings.Get()); }

  inline static int s_crashes = 0;
  void* const m_crashHandler = AddVectoredExceptionHandler(1, &CountCrash);
  Site m_site;
  ComPtr<IMFTransform> m_pObject;
  ComPtr<IVKFVStabilize> m_pSettings;
  ComPtr<IPropertyPage> m_pPage;
  HWND m_frame = nullptr, m_dialog = nullptr;
};

const std::vector<long> kDefaults = {-1, 0, 0, 0, 10000, 10000, 0, 2, 32, 0, 0, 0, 0, 1, 0, 0, -1};

TEST_F(PropertyPage, WritesWhatAPersonEnteredOnlyOnApply) {
  ConnectAndOpen();
  EXPECT_EQ(m_pPage->IsPageDirty(), S_FALSE);
  EXPECT_EQ(m_site.changes, 0) << "filling the controls is no change";
  Click(IDC_ROI_ENABLE);
  EXPECT_EQ(m_site.changes, 1);
  EXPECT_EQ(m_pPage->IsPageDirty(), S_OK);
  Type(IDC_ROI_TOP, "250");
  Type(IDC_ROI_LEFT, "41");
  Spin(IDC_ROI_LEFT_SPIN, true);
  Type(IDC_ROI_BOTTOM, "8000");
  Type(IDC_ROI_RIGHT, "9000");
  Spin(IDC_ROI_RIGHT_SPIN, false);
  Click(IDC_ROTATION);
  Choose(IDC_QUALITY, "1 (Highest)");
  Choose(IDC_LEVEL, "8");
  Click(IDC_CROP_ENABLE);
  Type(IDC_LEFT_RIGHT_MARGIN, "64");
  Type(IDC_TOP_BOTTOM_MARGIN, "36");
  Choose(IDC_CLIPPING_OPTION, "Crop and Stretch");
  Choose(IDC_INTERPOLATION, "Nearest");
  EXPECT_EQ(Settings(), kDefaults);

  ASSERT_EQ(m_pPage->Apply(), S_OK);
  EXPECT_EQ(m_pPage->IsPageDirty(), S_FALSE);
  // The object knows one number for right and bottom, and right is written last.
  const std::vector<long> applied = {-1, -1, 250, 42, 8999, 8999, 1, 0, 128, 0, -1, 64, 36, 0, 2, 0, -1};
  EXPECT_EQ(Settings(), applied);
  ComPtr<IVKFVStabilize> next;
  ASSERT_EQ(CMFTVStabilize::CreateInstance(nullptr, IID_PPV_ARGS(&next)), S_OK);
  EXPECT_EQ(SettingsOf(next.Get()), applied) << "the next transform starts with what was saved";

  EXPECT_EQ(m_pPage->Deactivate(), S_OK);
  Connect(next.Get());
  Open();
  EXPECT_EQ(Text(IDC_ROI_BOTTOM), "8999");
  EXPECT_EQ(Text(IDC_LEVEL), "8");
  EXPECT_TRUE(IsChecked(IDC_ROTATION));
  m_assertions.clear();  // of the second connection
}

TEST_F(PropertyPage, AppliesInOrderAndStopsAtTheFirstFailure) {
  Recorder object;
  Connect(&object);
  Open();
  Click(IDC_ENABLE);
  object.failing = "CropEnabled";
  EXPECT_EQ(m_pPage->Apply(), E_ACCESSDENIED);
  EXPECT_EQ(object.calls,
            "AutoReconnect=0 Enabled=-1 ROIEnabled=0 ROITop=0 ROILeft=0 ROIBottom=0 ROIRight=0 "
            "GlobalEstimationCoefficients=0 GlobalEstimationQuality=0 PathSmoothingLevel=0 BkFillColor=0 "
            "CropEnabled=0 ");
  EXPECT_EQ(m_pPage->IsPageDirty(), S_OK);
  object.calls +=
      "LeftRightCropMargin=0 TopBottomCropMargin=0 InterpolationType=0 ClippingOption=0 "
      "UseAdvancedEngine=0 AutoReconnect=-1 SaveAttributes=0 ";
  const std::string all = std::exchange(object.calls, "");
  object.failing = "SaveAttributes";
  EXPECT_EQ(m_pPage->Apply(), E_ACCESSDENIED);
  EXPECT_EQ(std::exchange(object.calls, ""), all);
  EXPECT_EQ(m_pPage->Deactivate(), S_OK);
  object.failing.clear();
  EXPECT_EQ(m_pPage->Apply(), S_OK) << "a host may close the dialog first";
  EXPECT_EQ(std::exchange(object.calls, ""), all);

  // The host takes the object away while the page calls it.
  const auto takeAway = [this] {
    m_pPage->SetObjects(0, nullptr);
    m_pPage->Deactivate();
  };
  Open();
  object.onCall = takeAway;
  EXPECT_EQ(m_pPage->Apply(), S_OK);
  EXPECT_EQ(object.calls, all);
  EXPECT_EQ(m_pPage->Apply(), E_UNEXPECTED);
  object.onCall = nullptr;
  Connect(&object);
  Open();
  Click(IDC_ENABLE);
  object.onCall = takeAway;
  Click(IDC_DEFAULTS);
  EXPECT_EQ(m_pPage->IsPageDirty(), S_FALSE);

  object.onCall = nullptr;
  object.failing = "getROITop";
  IUnknown* unreadable = &object;
  EXPECT_EQ(m_pPage->SetObjects(1, &unreadable), E_FAIL);
}

TEST_F(PropertyPage, EnablesWhatHasAnEffect) {
  ConnectAndOpen();
  EXPECT_EQ(EnabledKinds(), "AES");
  Click(IDC_ROI_ENABLE);
  EXPECT_EQ(EnabledKinds(), "AERS");
  Click(IDC_CROP_ENABLE);
  EXPECT_EQ(EnabledKinds(), "ACERS");
  Click(IDC_ENABLE);
  EXPECT_EQ(EnabledKinds(), "A");
  Click(IDC_ENABLE);
  EXPECT_EQ(EnabledKinds(), "ACERS");

  // With an advanced engine, and without
  EXPECT_EQ(m_pPage->Deactivate(), S_OK);
  const ComPtr<CVKVStabilizeImpl> facade = MakeFacade();
  facade->SetAdvancedEngineAvailable(true);
  EXPECT_EQ(m_pPage->SetObjects(0, nullptr), S_OK);
  Connect(static_cast<IVKFVStabilize*>(facade.Get()));
  Open();
  EXPECT_EQ(EnabledKinds(), "AESX");
  Click(IDC_ADVANCED_ENGINE);
  EXPECT_EQ(EnabledKinds(), "AEX");
  Click(IDC_DEFAULTS);
  EXPECT_EQ(EnabledKinds(), "AESX");
  SetFocus(Control(IDC_STANDARD_ENGINE));
  EXPECT_EQ(Press(WM_KEYDOWN, VK_DOWN), S_OK) << "as good as a click";
  EXPECT_EQ(m_pPage->Apply(), S_OK);
  EXPECT_TRUE(facade->IsAdvancedEngineActive());
  facade->SetAdvancedEngineAvailable(false);
  Click(IDC_DEFAULTS);
  EXPECT_TRUE(IsChecked(IDC_STANDARD_ENGINE));
  EXPECT_EQ(EnabledKinds(), "AES") << "the object was asked again";
  m_pPage->Deactivate();
  m_pPage->SetObjects(0, nullptr);
}

TEST_F(PropertyPage, LoadsDefaultsIntoTheControlsOnly) {
  m_pSettings->put_ROIEnabled(VARIANT_TRUE);
  m_pSettings->put_ROITop(77);
  m_pSettings->put_PathSmoothingLevel(vkvstab_PATHSMOOTHINGLEVEL_2);
  m_pSettings->put_BkFillColor(RGB(1, 2, 3));
  m_pSettings->put_LeftRightCropMargin(55);
  const std::vector<long> before = Settings();
  ConnectAndOpen();
  EXPECT_EQ(Text(IDC_ROI_TOP), "77");
  Click(IDC_DEFAULTS);
  EXPECT_EQ(Text(IDC_ROI_TOP), "0");
  EXPECT_EQ(m_pPage->IsPageDirty(), S_OK);
  EXPECT_EQ(m_site.changes, 1);
  EXPECT_EQ(m_pPage->Deactivate(), S_OK);
  EXPECT_EQ(Settings(), before) << "cancelled";
  Open();
  EXPECT_EQ(Text(IDC_LEVEL), "6") << "the edited copy outlives the dialog";
  EXPECT_EQ(m_pPage->Apply(), S_OK);
  EXPECT_EQ(Settings(), kDefaults);
}

TEST_F(PropertyPage, WritesTheNumberThatThePersonSees) {
  m_pSettings->put_ROIEnabled(VARIANT_TRUE);
  m_pSettings->put_CropEnabled(VARIANT_TRUE);
  m_pSettings->put_ROITop(20000);
  m_pSettings->put_ROILeft(-3);
  m_pSettings->put_ROIBottom(20000);
  m_pSettings->put_LeftRightCropMargin(6000);
  m_pSettings->put_TopBottomCropMargin(6000);
  ConnectAndOpen();
  for (int id : {IDC_ROI_TOP, IDC_ROI_RIGHT, IDC_ROI_BOTTOM}) EXPECT_EQ(Text(id), "10000");
  EXPECT_EQ(Text(IDC_ROI_LEFT), "0");
  for (int id : {IDC_LEFT_RIGHT_MARGIN, IDC_TOP_BOTTOM_MARGIN}) EXPECT_EQ(Text(id), "4999");

  struct {
    const char* entered;
    const char* shown;
  } const cases[] = {{"17", "17"}, {"abc", "17"},    {"12x", "17"},
                     {"-5", "17"}, {"5000", "17"},   {"0042", "42"},
                     {"", "0"},    {"4999", "4999"}, {"99999999999999999999999999", "4999"}};
  for (const auto& [entered, shown] : cases) {
    Paste(IDC_TOP_BOTTOM_MARGIN, entered);
    EXPECT_EQ(Text(IDC_TOP_BOTTOM_MARGIN), entered);
    const int changes = m_site.changes;
    EXPECT_EQ(m_pPage->Apply(), S_OK);
    EXPECT_EQ(m_site.changes, changes) << "a correction is no change";
    EXPECT_EQ(Text(IDC_TOP_BOTTOM_MARGIN), shown) << entered;
    EXPECT_EQ(Get(&IVKFVStabilize::get_TopBottomCropMargin), std::atol(shown)) << entered;
  }
  Type(IDC_ROI_LEFT, "1a2-");
  EXPECT_EQ(Text(IDC_ROI_LEFT), "12") << "only digits can be typed";
  Paste(IDC_ROI_LEFT, "10001");
  Spin(IDC_ROI_TOP_SPIN, true);
  EXPECT_EQ(m_pPage->Apply(), S_OK);
  EXPECT_EQ(Text(IDC_ROI_LEFT), "12");
  EXPECT_EQ(Text(IDC_ROI_TOP), "10000") << "the spin stops at its range";
}

TEST_F(PropertyPage, KeepsAValueThatIsNoItemUntilOneIsChosen) {
  const auto seven = static_cast<vkvstab_PathSmoothingLevel>(7);
  m_pSettings->put_PathSmoothingLevel(seven);
  ConnectAndOpen();
  EXPECT_EQ(Text(IDC_LEVEL), "");
  Click(IDC_ROTATION);
  EXPECT_EQ(m_pPage->Apply(), S_OK);
  EXPECT_EQ(Get(&IVKFVStabilize::get_PathSmoothingLevel), 7);
  Choose(IDC_LEVEL, "3");
  EXPECT_EQ(m_pPage->Apply(), S_OK);
  EXPECT_EQ(Get(&IVKFVStabilize::get_PathSmoothingLevel), 12);

  const std::map<int, std::string> lists = {{IDC_QUALITY, "1 (Highest)=0 2=1 3=2 4 (Lowest)=3 "},
                                            {IDC_LEVEL, "1=4 2=8 3=12 4=16 5=24 6=32 7=64 8=128 "},
                                            {IDC_CLIPPING_OPTION, "Outline=0 Crop=1 Crop and Stretch=2 "},
                                            {IDC_INTERPOLATION, "Nearest=0 Bilinear=1 "}};
  for (const auto& [id, items] : lists) {
    std::string found;
    char text[64];
    for (WPARAM i = 0; SendMessageA(Control(id), CB_GETLBTEXT, i, reinterpret_cast<LPARAM>(text)) != CB_ERR;
         ++i)
      found.append(text).append("=").append(
          std::to_string(SendMessageW(Control(id), CB_GETITEMDATA, i, 0))) += " ";
    EXPECT_EQ(found, items);
    EXPECT_GT(GetWindowTextLengthW(GetWindow(Control(id), GW_HWNDPREV)), 0)
        << "a screen reader takes the text before the list for its name";
  }
}

TEST_F(PropertyPage, ChoosesTheBackgroundByTheSystemsDialog) {
  const auto swatchColor = [&] {
    const HDC context = GetDC(Control(IDC_SWATCH));
    LOGBRUSH brush = {};
    const auto handle =
        reinterpret_cast<HBRUSH>(SendMessageW(m_dialog, WM_CTLCOLORSTATIC, reinterpret_cast<WPARAM>(context),
                                              reinterpret_cast<LPARAM>(Control(IDC_SWATCH))));
    GetObjectW(handle, sizeof brush, &brush);
    ReleaseDC(Control(IDC_SWATCH), context);
    return brush.lbColor;
  };
  constexpr COLORREF kWhite = RGB(255, 255, 255), kFirst = RGB(9, 80, 200), kNext = RGB(200, 100, 50);
  BOOL answer = FALSE;
  bool closes = false;
  COLORREF custom = kWhite, preselected = kFirst;
  const Replaced<__imp_ChooseColorA> dialog([&](CHOOSECOLORA* chooser) {
    EXPECT_EQ(chooser->lStructSize, sizeof *chooser);
    EXPECT_EQ(chooser->hwndOwner, m_dialog);
    EXPECT_EQ(chooser->Flags, static_cast<DWORD>(CC_RGBINIT | CC_FULLOPEN));
    EXPECT_EQ(std::exchange(chooser->rgbResult, kNext), preselected);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(chooser->lpCustColors[i], i == 15 ? custom : kWhite);
    custom = chooser->lpCustColors[15] = RGB(1, 2, 3);
    if (closes) m_pPage->Deactivate();
    return answer;
  });
  m_pSettings->put_BkFillColor(kFirst);
  ConnectAndOpen();
  EXPECT_EQ(swatchColor(), kFirst);
  Click(IDC_BACKGROUND);
  EXPECT_EQ(m_pPage->IsPageDirty(), S_FALSE) << "cancelled";
  EXPECT_EQ(swatchColor(), kFirst);
  answer = TRUE;
  Click(IDC_BACKGROUND);
  EXPECT_EQ(m_pPage->IsPageDirty(), S_OK);
  EXPECT_EQ(swatchColor(), kNext);
  EXPECT_EQ(Get(&IVKFVStabilize::get_BkFillColor), kFirst);
  EXPECT_EQ(m_pPage->Apply(), S_OK);
  EXPECT_EQ(Get(&IVKFVStabilize::get_BkFillColor), kNext);
  Click(IDC_ENABLE);
  EXPECT_EQ(swatchColor(), GetSysColor(COLOR_3DFACE)) << "disabled";
  Click(IDC_ENABLE);
  EXPECT_EQ(m_pPage->Apply(), S_OK);
  closes = true;
  preselected = kNext;
  Click(IDC_BACKGROUND);
  EXPECT_EQ(m_pPage->IsPageDirty(), S_FALSE) << "the page was closed meanwhile";
}

TEST_F(PropertyPage, NamesAndExplainsEachControl) {
  ConnectAndOpen();
  std::string found;
  for (HWND control = GetWindow(m_dialog, GW_CHILD); control; control = GetWindow(control, GW_HWNDNEXT)) {
    const int id = GetDlgCtrlID(control);
    if (id < 0 || id == IDC_HELP_LINE) continue;
    int low = -1, high = -1;
    SendMessageW(control, UDM_GETRANGE32, reinterpret_cast<WPARAM>(&low), reinterpret_cast<LPARAM>(&high));
    PointAt(id);
    const std::string range = high < 0 ? "" : std::to_string(low) + '-' + std::to_string(high);
    found += std::to_string(id) + ' ' + Text(id) + range + '|' + Text(IDC_HELP_LINE) + '\n';
    PointAt(0);
    EXPECT_EQ(Text(IDC_HELP_LINE), "");
  }
  std::string expected = kControls;
  for (std::size_t row = 0; row < expected.size(); row = expected.find('\n', row) + 1)
    expected.erase(row + 5, 2);
  EXPECT_EQ(found, expected);
}

TEST_F(PropertyPage, ObeysTheKeys) {
  m_pSettings->put_ROIEnabled(VARIANT_TRUE);
  m_pSettings->put_CropEnabled(VARIANT_TRUE);
  ConnectAndOpen();
  const std::vector<int> order = {
      IDC_ENABLE,        IDC_DEFAULTS,    IDC_STANDARD_ENGINE,   IDC_ROI_ENABLE,        IDC_ROI_TOP,
      IDC_ROI_LEFT,      IDC_ROI_RIGHT,   IDC_ROI_BOTTOM,        IDC_ROTATION,          IDC_QUALITY,
      IDC_LEVEL,         IDC_CROP_ENABLE, IDC_LEFT_RIGHT_MARGIN, IDC_TOP_BOTTOM_MARGIN, IDC_CLIPPING_OPTION,
      IDC_INTERPOLATION, IDC_BACKGROUND};
  std::vector<int> visited;
  SetFocus(Control(IDC_ENABLE));
  m_site.takesKeys = true;
  do {
    visited.push_back(GetDlgCtrlID(GetFocus()));
    EXPECT_EQ(Press(WM_KEYDOWN, VK_TAB), S_OK);
  } while (m_site.keys == 0 && visited.size() < 99);
  EXPECT_EQ(visited, order);
  EXPECT_EQ(GetFocus(), Control(IDC_BACKGROUND)) << "the frame took the last one";
  m_site.takesKeys = false;
  EXPECT_EQ(Press(WM_KEYDOWN, VK_TAB), S_OK);
  EXPECT_EQ(GetFocus(), Control(IDC_ENABLE));
  BYTE keys[256] = {};
  keys[VK_SHIFT] = 0x80;
  SetKeyboardState(keys);
  EXPECT_EQ(Press(WM_KEYDOWN, VK_TAB), S_OK);
  EXPECT_EQ(GetFocus(), Control(IDC_BACKGROUND));
  EXPECT_EQ(m_site.keys, 3) << "asked at both ends";
  keys[VK_SHIFT] = 0;
  SetKeyboardState(keys);

  EXPECT_EQ(Press(WM_SYSCHAR, 'q'), S_OK);
  EXPECT_EQ(GetFocus(), Control(IDC_QUALITY));
  EXPECT_EQ(Press(WM_SYSCHAR, 'x'), S_FALSE) << "may be the frame's";
  EXPECT_EQ(Press(WM_KEYDOWN, VK_RETURN), S_FALSE);
  EXPECT_EQ(Press(WM_KEYDOWN, VK_ESCAPE), S_FALSE);
  EXPECT_EQ(m_pPage->TranslateAccelerator(nullptr), E_POINTER);
  SetFocus(m_frame);
  EXPECT_EQ(Press(WM_KEYDOWN, VK_TAB), S_FALSE) << "not the page's";
}

TEST_F(PropertyPage, RefusesMethodsOutOfOrder) {
  const RECT rect = {5, 10, 505, 510};
  IUnknown* object = m_pSettings.Get();
  IUnknown* stranger = &m_site;
  IUnknown* objects[] = {object, object};
  EXPECT_EQ(m_pPage->Activate(m_frame, &rect, FALSE), E_UNEXPECTED);
  EXPECT_EQ(m_pPage->Apply(), E_UNEXPECTED);
  EXPECT_EQ(m_pPage->Deactivate(), E_UNEXPECTED);
  EXPECT_EQ(m_pPage->Show(SW_SHOW), E_UNEXPECTED);
  EXPECT_EQ(m_pPage->Move(&rect), E_UNEXPECTED);
  EXPECT_EQ(m_pPage->IsPageDirty(), S_FALSE);
  EXPECT_EQ(m_pPage->SetPageSite(&m_site), E_UNEXPECTED) << "has one";
  EXPECT_EQ(m_pPage->SetObjects(2, objects), E_UNEXPECTED);
  EXPECT_EQ(m_pPage->SetObjects(1, nullptr), E_POINTER);
  EXPECT_TRUE(m_assertions.empty());
  EXPECT_EQ(m_pPage->SetObjects(1, &stranger), E_NOINTERFACE);
  EXPECT_EQ(m_assertions, std::vector<std::string>{"vkvstabilizeprp: FALSE"});
  m_assertions.clear();

  EXPECT_EQ(m_pPage->SetObjects(1, &object), S_OK);
  EXPECT_EQ(m_pPage->Apply(), E_UNEXPECTED);
  EXPECT_EQ(m_pPage->Activate(m_frame, nullptr, FALSE), E_POINTER);
  EXPECT_HRESULT_FAILED(m_pPage->Activate(nullptr, &rect, FALSE));
  EXPECT_EQ(m_pPage->Activate(m_frame, &rect, FALSE), S_OK);
  EXPECT_EQ(m_pPage->Activate(m_frame, &rect, FALSE), E_UNEXPECTED);
  EXPECT_EQ(m_pPage->Show(SW_MAXIMIZE), E_INVALIDARG);
  EXPECT_EQ(m_pPage->Move(nullptr), E_POINTER);
  EXPECT_EQ(m_pPage->Help(nullptr), E_NOTIMPL) << "no help file stands beside this program";

  // Once the page has another object, the open dialog has no effect.
  m_dialog = GetWindow(m_frame, GW_CHILD);
  EXPECT_EQ(m_pPage->SetObjects(1, &object), S_OK);
  EXPECT_EQ(m_assertions,
            std::vector<std::string>{"vkvstabilizeprp: (IVKFVStabilize*)m_spIVStabilize == NULL"});
  m_assertions.clear();
  for (int id : {IDC_ENABLE, IDC_DEFAULTS}) Click(id);
  EXPECT_EQ(m_pPage->IsPageDirty(), S_FALSE);
  EXPECT_EQ(m_pPage->SetObjects(0, nullptr), S_OK);
  EXPECT_EQ(m_pPage->Apply(), E_UNEXPECTED);
  EXPECT_EQ(m_pPage->Deactivate(), S_OK);
  EXPECT_EQ(m_pPage->Deactivate(), E_UNEXPECTED);
  EXPECT_EQ(Settings(), kDefaults);
}

TEST_F(PropertyPage, SurvivesAHostThatClosesEarly) {
  ConnectAndOpen();
  m_site.onChange = [this] { m_pPage->Deactivate(); };
  Click(IDC_ROTATION);
  m_site.onChange = nullptr;
  Open();
  EXPECT_EQ(Text(IDC_ROI_RIGHT), "10000") << "what the closed dialog could not tell any more";
  DestroyWindow(m_frame);
  EXPECT_EQ(m_pPage->Deactivate(), E_UNEXPECTED);
  m_frame = CreateWindowW(L"STATIC", L"", WS_POPUP, 0, 0, 600, 600, nullptr, nullptr, nullptr, nullptr);
  Open();
  m_site.onChange = [this] {
    m_pPage->SetPageSite(nullptr);
    m_pPage.Reset();
  };
  Click(IDC_ROTATION);
  EXPECT_FALSE(IsWindow(m_dialog)) << "the last release closes the dialog";
}

using CreateFunction = HRESULT (*)(IUnknown*, REFIID, void**);
constexpr CreateFunction kPages[] = {&CVKVStabilizePrp::CreateInstance, &CAboutProperties::CreateInstance};

TEST_F(PropertyPage, PagesSayWhatTheyAreAndGoWhereTheyAreTold) {
  for (const CreateFunction create : kPages) {
    void* object = this;
    EXPECT_EQ(create(nullptr, __uuidof(IPropertyPage2), &object), E_NOINTERFACE);
    EXPECT_EQ(object, nullptr);
    ComPtr<IPropertyPage> page;
    ComPtr<IUnknown> identity;
    ASSERT_EQ(create(nullptr, IID_PPV_ARGS(&page)), S_OK);
    EXPECT_EQ(page.As(&identity), S_OK);
    EXPECT_EQ(identity.Get(), page.Get());
    PROPPAGEINFO info = {};
    EXPECT_EQ(page->GetPageInfo(nullptr), E_POINTER);
    ASSERT_EQ(page->GetPageInfo(&info), S_OK);
    EXPECT_STREQ(info.pszTitle, create == kPages[0] ? L"Varkon Video Stabilizer" : L"About");
    CoTaskMemFree(info.pszTitle);

    IUnknown* settings = m_pSettings.Get();
    EXPECT_EQ(page->SetObjects(1, &settings), S_OK);
    const RECT rect = {30, 20, 30 + info.size.cx, 20 + info.size.cy};
    EXPECT_EQ(page->Activate(m_frame, &rect, FALSE), S_OK);
    m_dialog = GetWindow(m_frame, GW_CHILD);
    // The pixels that the template asks for, in the dialog's own font
    RECT asked = {0, 0, 252, 287}, placed = {};
    MapDialogRect(m_dialog, &asked);
    EXPECT_EQ(info.size.cx, asked.right);
    EXPECT_EQ(info.size.cy, asked.bottom);
    GetWindowRect(m_dialog, &placed);
    MapWindowPoints(nullptr, m_frame, reinterpret_cast<POINT*>(&placed), 2);
    EXPECT_TRUE(EqualRect(&placed, &rect));
    EXPECT_TRUE(IsWindowVisible(m_dialog));
    EXPECT_EQ(page->Show(SW_HIDE), S_OK);
    EXPECT_FALSE(IsWindowVisible(m_dialog));
    EXPECT_EQ(Text(IDC_ABOUT_VERSION), create == kPages[0] ? "" : "Version 1.2.3.4");
    EXPECT_EQ(page->Apply(), S_OK);

    const Replaced<__imp_GetFileVersionInfoSizeA> none([](auto...) { return DWORD{0}; });
    EXPECT_EQ(page->Deactivate(), S_OK);
    EXPECT_EQ(page->Activate(m_frame, &rect, FALSE), S_OK);
    m_dialog = GetWindow(m_frame, GW_CHILD);
    EXPECT_EQ(Text(IDC_ABOUT_VERSION), "");
  }
}

/// The numbers of this process's drawing objects and of this thread's windows. GetGuiResources does not count
/// them on every system, so every possible handle is tried.
std::pair<int, int> CountHandles(HWND frame) {
  int objects = 0, windows = 0;
  for (UINT_PTR handle = 1; handle < 0x10000; ++handle)
    objects += GetObjectType(reinterpret_cast<HGDIOBJ>(handle)) != 0;
  const auto count = [](HWND, LPARAM sum) -> BOOL {
    ++*reinterpret_cast<int*>(sum);
    return TRUE;
  };
  EnumThreadWindows(GetCurrentThreadId(), count, reinterpret_cast<LPARAM>(&windows));
  EnumChildWindows(frame, count, reinterpret_cast<LPARAM>(&windows));
  return {objects, windows};
}

TEST_F(PropertyPage, LeavesNoHandlesBehind) {
  IUnknown* object = m_pSettings.Get();
  const RECT rect = {0, 0, 500, 500};
  std::pair<int, int> before;
  for (int i = 0; i <= 4; ++i) {
    if (i == 1) before = CountHandles(m_frame);  // from now on, the system has allocated what it keeps
    for (const CreateFunction create : kPages) {
      ComPtr<IPropertyPage> page;
      ASSERT_EQ(create(nullptr, IID_PPV_ARGS(&page)), S_OK);
      ASSERT_EQ(page->SetObjects(1, &object), S_OK);
      PROPPAGEINFO info = {};
      ASSERT_EQ(page->GetPageInfo(&info), S_OK);
      CoTaskMemFree(info.pszTitle);
      for (int times = 0; times < 2; ++times) {
        ASSERT_EQ(page->Activate(m_frame, &rect, FALSE), S_OK);
        ASSERT_EQ(page->Deactivate(), S_OK);
      }
    }
  }
  EXPECT_EQ(CountHandles(m_frame), before);
}

}  // namespace
