#include <atomic>
#include <bit>
#include <chrono>
#include <functional>
#include <mferror.h>
#include <string>
#include <thread>
#include <tuple>

#include "testenvironment.h"

using Microsoft::WRL::ComPtr;

namespace {

using Bytes = std::vector<std::uint8_t>;

/// A store whose writes can be made to fail, and whose next read can be followed by a call.
class ScriptedAttributes final : public MyAttributes {
 public:
  static inline int writesLeft = 0;
  static inline std::function<void()> onRead;

  static HRESULT STDAPICALLTYPE Create(IMFAttributes** attributes, UINT32 size) {
    ComPtr<IMFAttributes> inner;
    const HRESULT hr = MFCreateAttributes(&inner, size);
    *attributes = new ScriptedAttributes(inner);
    return hr;
  }

  STDMETHODIMP GetUINT32(REFGUID key, UINT32* value) override {
    const HRESULT hr = MyAttributes::GetUINT32(key, value);
    if (const auto call = std::exchange(onRead, nullptr)) call();
    return hr;
  }
  STDMETHODIMP SetUINT32(REFGUID key, UINT32 value) override {
    return writesLeft-- > 0 ? MyAttributes::SetUINT32(key, value) : E_ACCESSDENIED;
  }

 private:
  explicit ScriptedAttributes(ComPtr<IMFAttributes> inner) : MyAttributes(std::move(inner)) {}
};

class Facade : public FacadeTest {
 protected:
  /// Feeds a frame; 1 when a frame comes out, 0 when none does yet, -1 on failure.
  int Feed() {
    Bytes frame(16 * 3 * 12);
    bool noOutput = false;
    if (!m_pFacade->ProcessFrame(frame.data(), 16, 12, false, &noOutput)) return noOutput ? -1 : -2;
    return noOutput ? 0 : 1;
  }

  /// Feeds frames until one comes out; returns how many were taken before it.
  int FramesBeforeOutput() {
    for (int frames = 0; frames < 200; ++frames)
      if (Feed() != 0) return frames;
    return -1;
  }

  StabilizerSettings Snapshot() const {
    unsigned version = 0;
    return m_pFacade->TakeSnapshot(&version);
  }
};

TEST_F(Facade, WritesTheDefaultsInTheirOrder) {
  using settingskeys::EngineKey, settingskeys::Key;
  const std::pair<GUID, UINT32> items[] = {
      {Key(0xE2BCDE61), 1},       {Key(0xE2BCDE62), 0},      {Key(0xE2BCDE63), 0}, {Key(0xE2BCDE64), 10000},
      {Key(0xE2BCDE65), 10000},   {Key(0xE2BCDE66), 0},      {Key(0xE2BCDE67), 0}, {Key(0xE2BCDE68), 2},
      {Key(0xE2BCDE69), 32},      {Key(0xE2BCDE10), 0},      {Key(0xE2BCDE11), 0}, {Key(0xE2BCDE12), 0},
      {Key(0xE2BCDE13), 0},       {Key(0xE2BCDE14), 1},      {Key(0xE2BCDE15), 0}, {Key(0xE2BCDE16), 1},
      {EngineKey(0xE2B7DEE5), 0}, {EngineKey(0xE2B7DEE6), 0}};
  WCHAR text[40] = {};
  StringFromGUID2(Key(1), text, 40);
  EXPECT_STREQ(text, L"{00000001-4757-4897-8FAE-6275CB238B41}");
  UINT32 count = 0;
  m_pFacade->Attributes()->GetCount(&count);
  EXPECT_EQ(count, std::size(items));
  // A new store keeps its items in the order in which they were written.
  for (UINT32 i = 0; i < std::size(items); ++i) {
    GUID key = {};
    ASSERT_EQ(m_pFacade->Attributes()->GetItemByIndex(i, &key, nullptr), S_OK);
    EXPECT_TRUE(key == items[i].first) << "item " << i;
    EXPECT_EQ(Item(key), items[i].second) << "item " << i;
  }
  EXPECT_EQ(m_transform.calls, 0);
  EXPECT_FALSE(m_pFacade->IsReconnectPending());
}

TEST_F(Facade, AnswersForItsTwoInterfacesOnly) {
  for (const IID& iid : {__uuidof(IDispatch), __uuidof(IVKFVStabilize)}) {
    ComPtr<IDispatch> object;
    EXPECT_EQ(m_pFacade->QueryInterface(iid, &object), S_OK);
    EXPECT_EQ(object.Get(), m_pFacade.Get());
  }
  for (const IID& iid : {__uuidof(IUnknown), __uuidof(IVKFVStabilize1), __uuidof(IMFAttributes)}) {
    void* object = this;
    EXPECT_EQ(m_pFacade->QueryInterface(iid, &object), E_NOINTERFACE);
    EXPECT_EQ(object, nullptr);
  }
  EXPECT_EQ(m_pFacade->QueryInterface(__uuidof(IDispatch), nullptr), E_POINTER);
  EXPECT_EQ(m_pFacade->get_Enabled(nullptr), E_POINTER);
  EXPECT_EQ(m_pFacade->get_AutoReconnect(nullptr), E_POINTER);
  EXPECT_EQ(m_pFacade->get_ROITop(nullptr), E_POINTER);
}

TEST_F(Facade, EachNumberHasItsOwnPropertyItemAndField) {
  m_pFacade->put_ROIRight(200);
  m_pFacade->put_ROIBottom(300);
  // Values are not range-checked.
  m_pFacade->put_ROITop(-11);
  m_pFacade->put_ROILeft(12);
  m_pFacade->put_GlobalEstimationCoefficients(vkvstab_GLOBALESTIMATIONCOEFFICIENTS_X_Y_THETA);
  m_pFacade->put_GlobalEstimationQuality(std::bit_cast<vkvstab_GlobalEstimationQuality>(7));
  m_pFacade->put_PathSmoothingLevel(std::bit_cast<vkvstab_PathSmoothingLevel>(5));
  m_pFacade->put_BkFillColor(0x00112233);
  m_pFacade->put_LeftRightCropMargin(-3);
  m_pFacade->put_TopBottomCropMargin(1 << 30);
  m_pFacade->put_InterpolationType(std::bit_cast<vkvstab_InterpolationType>(-1));
  m_pFacade->put_ClippingOption(std::bit_cast<vkvstab_enumClippingOption>(9));
  const StabilizerSettings taken = Snapshot();
  const std::tuple<GUID, std::int32_t, std::int32_t> numbers[] = {
      {VKVSTAB_ATTR_ROI_TOP, -11, taken.ROI.top},
      {VKVSTAB_ATTR_ROI_LEFT, 12, taken.ROI.left},
      {VKVSTAB_ATTR_ROI_BOTTOM, 300, taken.ROI.bottom},
      {VKVSTAB_ATTR_ROI_BOTTOM, 300, taken.ROI.right},
      {VKVSTAB_ATTR_ESTIMATION_COEFFICIENTS, 1, taken.GlobalEstimationCoefficients},
      {VKVSTAB_ATTR_ESTIMATION_QUALITY, 7, taken.GlobalEstimationQuality},
      {VKVSTAB_ATTR_PATH_SMOOTHING_LEVEL, 5, taken.PathSmoothingLevel},
      {VKVSTAB_ATTR_LEFT_RIGHT_CROP_MARGIN, -3, taken.LeftRightCropMargin},
      {VKVSTAB_ATTR_TOP_BOTTOM_CROP_MARGIN, 1 << 30, taken.TopBottomCropMargin},
      {VKVSTAB_ATTR_INTERPOLATION_TYPE, -1, taken.InterpolationType},
      {VKVSTAB_ATTR_CLIPPING_OPTION, 9, taken.ClippingOption}};
  for (const auto& [key, value, field] : numbers) {
    EXPECT_EQ(std::bit_cast<std::int32_t>(Item(key)), value);
    EXPECT_EQ(field, value);
  }
  EXPECT_EQ(taken.BkFillColor, (std::array<std::uint8_t, 3>{0x11, 0x22, 0x33})) << "blue first";
  m_pFacade->put_ROIRight(400);
  EXPECT_EQ(Item(VKVSTAB_ATTR_ROI_BOTTOM), 400U) << "the right edge is the bottom edge";
  EXPECT_EQ(Item(VKVSTAB_ATTR_ROI_RIGHT), 10000U);
}

TEST_F(Facade, EachFlagHasItsOwnPropertyItemAndField) {
  using Put = HRESULT (STDMETHODCALLTYPE CVKVStabilizeImpl::*)(VARIANT_BOOL);
  const std::tuple<GUID, Put, bool StabilizerSettings::*> flags[] = {
      {VKVSTAB_ATTR_ENABLED, &CVKVStabilizeImpl::put_Enabled, &StabilizerSettings::Enabled},
      {VKVSTAB_ATTR_ROI_ENABLED, &CVKVStabilizeImpl::put_ROIEnabled, &StabilizerSettings::ROIEnabled},
      {VKVSTAB_ATTR_CROP_ENABLED, &CVKVStabilizeImpl::put_CropEnabled, &StabilizerSettings::CropEnabled},
      {VKVSTAB_ATTR_USE_ADVANCED_ENGINE, &CVKVStabilizeImpl::put_UseAdvancedEngine,
       &StabilizerSettings::UseAdvancedEngine}};
  unsigned before = 0, after = 0;
  for (const auto& [key, put, field] : flags) {
    for (const UINT32 value : {0U, 1U, 0U}) {
      (m_pFacade.Get()->*put)(value == 0 ? VARIANT_FALSE : VARIANT_BOOL{1});  // any but zero is true
      EXPECT_EQ(Item(key), value);
      EXPECT_EQ(m_pFacade->TakeSnapshot(&before).*field, value == 1);
    }
  }
  m_pFacade->SetAdvancedEngineAvailable(true);
  EXPECT_TRUE(m_pFacade->TakeSnapshot(&after).AdvancedEngineAvailable);
  EXPECT_EQ(Item(VKVSTAB_ATTR_ADVANCED_ENGINE_AVAILABLE), 1U);
  EXPECT_EQ(after, before + 1) << "one change a write";
}

TEST_F(Facade, StoresColoursTranslatedAndRefusesOthers) {
  EXPECT_EQ(m_pFacade->put_BkFillColor(0x80000000U | COLOR_WINDOW), S_OK);
  EXPECT_EQ(Item(VKVSTAB_ATTR_BK_FILL_COLOR), GetSysColor(COLOR_WINDOW));
  EXPECT_EQ(m_pFacade->put_BkFillColor(0x00112233), S_OK);
  EXPECT_EQ(m_pFacade->put_BkFillColor(0x05123456), E_INVALIDARG);
  EXPECT_EQ(Item(VKVSTAB_ATTR_BK_FILL_COLOR), 0x00112233U);

  // An invalid colour, stored as an attribute, counts as black. Frames are still processed.
  m_pFacade->Attributes()->SetUINT32(VKVSTAB_ATTR_BK_FILL_COLOR, 0x05123456);
  EXPECT_EQ(Feed(), 0);
  EXPECT_EQ(m_assertions, std::vector<std::string>{"vkvstabilizeimpl: SUCCEEDED ( hr )"});
}

TEST_F(Facade, MissingItemsReadTrueForTwoFlagsAndNothingElse) {
  m_pFacade->Attributes()->DeleteAllItems();
  const StabilizerSettings taken = Snapshot();
  EXPECT_TRUE(taken.Enabled);
  VARIANT_BOOL isReconnecting = VARIANT_FALSE;
  EXPECT_EQ(m_pFacade->get_AutoReconnect(&isReconnecting), S_OK);
  EXPECT_EQ(isReconnecting, VARIANT_TRUE);
  EXPECT_FALSE(taken.ROIEnabled || taken.CropEnabled || taken.UseAdvancedEngine ||
               taken.AdvancedEngineAvailable);
  EXPECT_EQ(taken.PathSmoothingLevel, 0);
  EXPECT_EQ(taken.ROI.bottom, 0);

  // A missing item stands for a value. Putting that value stores nothing.
  m_pFacade->put_Enabled(VARIANT_TRUE);
  m_pFacade->put_AutoReconnect(VARIANT_TRUE);
  m_pFacade->put_UseAdvancedEngine(VARIANT_TRUE);
  m_pFacade->put_ROIEnabled(VARIANT_FALSE);
  m_pFacade->put_CropEnabled(VARIANT_FALSE);
  m_pFacade->put_ROITop(0);
  m_pFacade->SetAdvancedEngineAvailable(false);
  UINT32 count = 99;
  m_pFacade->Attributes()->GetCount(&count);
  EXPECT_EQ(count, 0U);
  EXPECT_FALSE(Snapshot().UseAdvancedEngine) << "put true, and still false";
  m_pFacade->put_UseAdvancedEngine(VARIANT_FALSE);
  EXPECT_EQ(Item(VKVSTAB_ATTR_USE_ADVANCED_ENGINE), 0U);
}

TEST_F(Facade, TellsTheTransformOnlyWhatCanChangeTheOutput) {
  IMFAttributes* const store = m_pFacade->Attributes();
  m_pFacade->put_ClippingOption(vkvstab_CLIPPINGOPTIONS_CROP);
  m_pFacade->put_LeftRightCropMargin(5);
  EXPECT_EQ(m_transform.calls, 0) << "cropping is off";
  EXPECT_EQ(m_traces.back(), "\nCVKVStabilizeImpl::AttributesChanged");
  m_pFacade->put_CropEnabled(VARIANT_TRUE);
  EXPECT_EQ(m_transform.calls, 1);
  m_pFacade->put_CropEnabled(VARIANT_TRUE);
  m_pFacade->put_LeftRightCropMargin(5);
  EXPECT_EQ(m_transform.calls, 1) << "puts of what is there";
  m_pFacade->put_AutoReconnect(VARIANT_FALSE);
  EXPECT_EQ(m_transform.calls, 2) << "any setting, while cropping";
  store->SetUINT32(VKVSTAB_ATTR_ENABLED, 1);
  EXPECT_EQ(m_transform.calls, 3) << "a store write, even of what is there";
  store->DeleteItem(VKVSTAB_ATTR_ENABLED);
  EXPECT_EQ(m_transform.calls, 3) << "deletions are silent";
  m_pFacade->ResetToDefaults();
  EXPECT_EQ(m_transform.calls, 3) << "cropping is off after a reset";
  m_pFacade->put_CropEnabled(VARIANT_TRUE);
  EXPECT_EQ(m_transform.calls, 3) << "another clipping option";
}

TEST_F(Facade, SetsTheKernelUpAnewWhenSettingsChange) {
  EXPECT_EQ(FramesBeforeOutput(), 16);
  m_pFacade->put_PathSmoothingLevel(vkvstab_PATHSMOOTHINGLEVEL_2);
  EXPECT_EQ(FramesBeforeOutput(), 4);
  EXPECT_EQ(Feed(), 1) << "set up once, not for every frame";
  m_pFacade->put_AutoReconnect(VARIANT_FALSE);
  m_pFacade->put_PathSmoothingLevel(vkvstab_PATHSMOOTHINGLEVEL_3);
  EXPECT_EQ(Feed(), 1) << "not while AutoReconnect is off";
  m_pFacade->put_AutoReconnect(VARIANT_TRUE);
  EXPECT_EQ(FramesBeforeOutput(), 6);
  m_pFacade->put_AutoReconnect(VARIANT_FALSE);
  m_pFacade->put_PathSmoothingLevel(vkvstab_PATHSMOOTHINGLEVEL_1);
  EXPECT_TRUE(m_pFacade->Reset());
  EXPECT_EQ(FramesBeforeOutput(), 2) << "but after a reset";
  m_pFacade->Attributes()->DeleteItem(VKVSTAB_ATTR_AUTO_RECONNECT);
  m_pFacade->Attributes()->SetUINT32(VKVSTAB_ATTR_PATH_SMOOTHING_LEVEL, 8);
  EXPECT_EQ(FramesBeforeOutput(), 4) << "a missing AutoReconnect counts as on";
}

TEST_F(Facade, ReportsAKernelThatCannotBeSetUpAndAFrameWithoutSize) {
  SIZE size = {0, 480};
  m_pFacade->GetOutputSize(size);
  EXPECT_EQ(m_assertions, std::vector<std::string>{"vkvstabilizeimpl: ( sz.cx > 0 ) && ( sz.cy > 0 )"});
  m_assertions = {};
  m_pFacade->put_PathSmoothingLevel(std::bit_cast<vkvstab_PathSmoothingLevel>(5));
  EXPECT_EQ(Feed(), -1);
  EXPECT_EQ(m_assertions,
            (std::vector<std::string>{"vkvstabilizeimpl: fRet",
                                      "vkvstabilizeimpl: m_pStabilizeVideoKernel->IsInitialized ( )"}));
  m_assertions = {};
  m_pFacade->put_PathSmoothingLevel(vkvstab_PATHSMOOTHINGLEVEL_1);
  EXPECT_EQ(FramesBeforeOutput(), 2);
  EXPECT_TRUE(m_assertions.empty());
}

TEST_F(Facade, AResetThatFailsStopsThereAndLeavesTheStoreLocked) {
  ScriptedAttributes::writesLeft = 4;
  m_pFacade = MakeFacade(nullptr, &ScriptedAttributes::Create);
  EXPECT_EQ(ScriptedAttributes::writesLeft, -1) << "four writes and one that failed";
  m_traces.clear();
  m_pFacade->Attributes()->UnlockStore();
  EXPECT_EQ(m_traces.size(), 1U) << "the notification";
  EXPECT_EQ(m_pFacade->ResetToDefaults(), E_ACCESSDENIED);
  ScriptedAttributes::writesLeft = 1;
  m_pFacade->put_LeftRightCropMargin(9);
  EXPECT_EQ(m_traces.size(), 1U) << "still inside the lock of the reset";
  m_pFacade->Attributes()->UnlockStore();
  EXPECT_EQ(m_traces.size(), 2U);
}

TEST_F(Facade, OutlivesItsTransformAndIsOutlivedByItsStores) {
  {
    Transform transform;
    m_pFacade = MakeFacade(&transform);
    m_pFacade->put_ClippingOption(vkvstab_CLIPPINGOPTIONS_CROP);
    m_pFacade->put_CropEnabled(VARIANT_TRUE);
    EXPECT_EQ(transform.calls, 1);
    m_pFacade->DetachCallback();
    m_pFacade->put_LeftRightCropMargin(3);
    EXPECT_EQ(transform.calls, 1);
  }
  auto* const attributes = static_cast<MyAttributes*>(m_pFacade->Attributes());
  ComPtr<IMFAttributes> store(attributes), before = attributes->Inner();
  EXPECT_EQ(m_pFacade->SaveAttributes(), S_OK);
  EXPECT_EQ(m_pFacade->LoadAttributes(), S_OK);
  EXPECT_EQ(before.Reset(), 0U) << "a load exchanges the platform's store";
  ComPtr<IMFAttributes> after = attributes->Inner();
  EXPECT_EQ(m_pFacade.Reset(), 0U);
  EXPECT_EQ(store->SetUINT32(VKVSTAB_ATTR_CROP_ENABLED, 1), S_OK) << "nobody is left to notify";
  EXPECT_EQ(store.Reset(), 0U);
  EXPECT_EQ(after.Reset(), 0U);
}

TEST_F(Facade, TakesItsLeaveOnlyWhenNoCallIsRunning) {
  struct Slow : VKVStabilizeImplCB {
    HRESULT STDMETHODCALLTYPE OutputChanged() override {
      running = true;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      running = false;
      return S_OK;
    }
    std::atomic<bool> running = false;
  } transform;
  m_pFacade = MakeFacade(&transform);
  m_pFacade->put_ClippingOption(vkvstab_CLIPPINGOPTIONS_CROP);
  std::thread writer([&] { m_pFacade->put_CropEnabled(VARIANT_TRUE); });
  while (!transform.running) std::this_thread::yield();
  m_pFacade->DetachCallback();
  EXPECT_FALSE(transform.running);
  writer.join();
}

TEST_F(Facade, LivesWithoutAStoreAndWithoutAKernel) {
  static bool fails = true;
  m_pFacade = MakeFacade(&m_transform, [](IMFAttributes** attributes, UINT32 size) {
    return fails ? E_ACCESSDENIED : MFCreateAttributes(attributes, size);
  });
  EXPECT_EQ(m_pFacade->ResetToDefaults(), E_ACCESSDENIED);
  EXPECT_EQ(m_pFacade->LoadAttributes(), E_ACCESSDENIED);
  EXPECT_EQ(m_pFacade->SaveAttributes(), MF_E_NOT_INITIALIZED) << "saving makes none";
  VARIANT_BOOL isEnabled = VARIANT_FALSE;
  EXPECT_EQ(m_pFacade->get_Enabled(&isEnabled), S_OK);
  EXPECT_EQ(isEnabled, VARIANT_TRUE);
  EXPECT_EQ(m_pFacade->put_AutoReconnect(VARIANT_FALSE), S_OK);
  EXPECT_EQ(m_pFacade->put_ROITop(5), S_OK);
  m_pFacade->DetachCallback();
  EXPECT_EQ(FramesBeforeOutput(), 16) << "the record's own defaults";

  fails = false;
  EXPECT_EQ(m_pFacade->LoadAttributes(), S_OK) << "nothing was saved";
  m_pFacade->put_ClippingOption(vkvstab_CLIPPINGOPTIONS_CROP);
  m_pFacade->put_CropEnabled(VARIANT_TRUE);
  EXPECT_EQ(Item(VKVSTAB_ATTR_CROP_ENABLED), 1U);
  EXPECT_EQ(m_transform.calls, 0) << "the transform took its leave before the store was made";
  {
    const FailingAllocations kernel(sizeof(CStabilizeVideoKernel), sizeof(CStabilizeVideoKernel));
    m_pFacade = MakeFacade();
  }
  EXPECT_EQ(Feed(), -1);
  EXPECT_TRUE(m_pFacade->Reset());
}

TEST_F(Facade, ReadsNoEngineThatIsHalfLoaded) {
  m_pFacade->put_UseAdvancedEngine(VARIANT_TRUE);  // which this machine does not have
  EXPECT_EQ(m_pFacade->SaveAttributes(), S_OK);
  ScriptedAttributes::writesLeft = 99;
  m_pFacade = MakeFacade(nullptr, &ScriptedAttributes::Create);
  m_pFacade->SetAdvancedEngineAvailable(true);
  ScriptedAttributes::onRead = [&] { EXPECT_EQ(m_pFacade->LoadAttributes(), S_OK); };
  EXPECT_FALSE(m_pFacade->IsAdvancedEngineActive()) << "there before the load, and wanted after it";
  EXPECT_TRUE(Snapshot().UseAdvancedEngine);
}

}  // namespace
