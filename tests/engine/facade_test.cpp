#include <algorithm>
#include <atomic>
#include <bit>
#include <chrono>
#include <random>
#include <thread>

#include "kernel/frame.h"
#include "support/scene.h"
#include "testenvironment.h"
#include "threadteam.h"

using Microsoft::WRL::ComPtr;

namespace {

using Bytes = std::vector<std::uint8_t>;

class Facade : public EngineTest {
 protected:
  UINT32 Item(const GUID& key) const {
    UINT32 value = 0xDEAD;
    EXPECT_EQ(m_pFacade->Attributes()->GetUINT32(key, &value), S_OK);
    return value;
  }

  /// Feeds a frame; 1 when a frame comes out, 0 when none does yet, -1 on failure.
  int Feed(std::uint32_t width = 16, std::uint32_t height = 12, std::uint8_t fill = 0) {
    const FrameGeometry frame(static_cast<std::int32_t>(width), static_cast<std::int32_t>(height));
    m_frame.assign(static_cast<std::size_t>(frame.SizeBytes()), fill);
    bool noOutput = false;
    if (!m_pFacade->ProcessFrame(m_frame.data(), width, height, false, &noOutput)) return noOutput ? -1 : -2;
    return noOutput ? 0 : 1;
  }

  /// Feeds frames until one comes out; returns how many were taken before it.
  int FramesBeforeOutput() {
    for (int frames = 0; frames < 200; ++frames)
      if (Feed() != 0) return frames;
    return -1;
  }

  CallbackCounter m_callback;
  ComPtr<CVKVStabilizeImpl> m_pFacade = MakeFacade(&m_callback);
  Bytes m_frame;
};

template <class Value>
Value Read(CVKVStabilizeImpl* facade, HRESULT (STDMETHODCALLTYPE CVKVStabilizeImpl::*get)(Value*)) {
  Value value = {};
  EXPECT_EQ((facade->*get)(&value), S_OK);
  return value;
}

TEST_F(Facade, StartsWithTheDefaults) {
  EXPECT_EQ(Read(m_pFacade.Get(), &CVKVStabilizeImpl::get_Enabled), VARIANT_TRUE);
  EXPECT_EQ(Read(m_pFacade.Get(), &CVKVStabilizeImpl::get_AutoReconnect), VARIANT_TRUE);
  EXPECT_EQ(Read(m_pFacade.Get(), &CVKVStabilizeImpl::get_PathSmoothingLevel), 32);
  EXPECT_EQ(Read(m_pFacade.Get(), &CVKVStabilizeImpl::get_GlobalEstimationQuality), 2);
  EXPECT_EQ(Read(m_pFacade.Get(), &CVKVStabilizeImpl::get_ROIBottom), 10000);
  EXPECT_EQ(Read(m_pFacade.Get(), &CVKVStabilizeImpl::get_InterpolationType), 1);
  EXPECT_EQ(m_callback.calls, 0);
  EXPECT_FALSE(m_pFacade->IsReconnectPending());
}

TEST_F(Facade, WritesTheDefaultsInTheirOrder) {
  struct Row {
    const wchar_t* key;
    UINT32 value;
  };
  const Row rows[] = {
      {L"{E2BCDE61-4757-4897-8FAE-6275CB238B41}", 1},     {L"{E2BCDE62-4757-4897-8FAE-6275CB238B41}", 0},
      {L"{E2BCDE63-4757-4897-8FAE-6275CB238B41}", 0},     {L"{E2BCDE64-4757-4897-8FAE-6275CB238B41}", 10000},
      {L"{E2BCDE65-4757-4897-8FAE-6275CB238B41}", 10000}, {L"{E2BCDE66-4757-4897-8FAE-6275CB238B41}", 0},
      {L"{E2BCDE67-4757-4897-8FAE-6275CB238B41}", 0},     {L"{E2BCDE68-4757-4897-8FAE-6275CB238B41}", 2},
      {L"{E2BCDE69-4757-4897-8FAE-6275CB238B41}", 32},    {L"{E2BCDE10-4757-4897-8FAE-6275CB238B41}", 0},
      {L"{E2BCDE11-4757-4897-8FAE-6275CB238B41}", 0},     {L"{E2BCDE12-4757-4897-8FAE-6275CB238B41}", 0},
      {L"{E2BCDE13-4757-4897-8FAE-6275CB238B41}", 0},     {L"{E2BCDE14-4757-4897-8FAE-6275CB238B41}", 1},
      {L"{E2BCDE15-4757-4897-8FAE-6275CB238B41}", 0},     {L"{E2BCDE16-4757-4897-8FAE-6275CB238B41}", 1},
      {L"{E2B7DEE5-38C5-11D5-91F6-00104BDB8FF9}", 0},     {L"{E2B7DEE6-38C5-11D5-91F6-00104BDB8FF9}", 0}};
  UINT32 count = 0;
  m_pFacade->Attributes()->GetCount(&count);
  EXPECT_EQ(count, std::size(rows));
  // A new store keeps its items in the order in which they were written.
  for (UINT32 i = 0; i < std::size(rows); ++i) {
    GUID key = {};
    WCHAR text[40];
    ASSERT_EQ(m_pFacade->Attributes()->GetItemByIndex(i, &key, nullptr), S_OK);
    ASSERT_NE(StringFromGUID2(key, text, 40), 0);
    EXPECT_STREQ(text, rows[i].key);
    EXPECT_EQ(Item(key), rows[i].value) << "item " << i;
  }
}

TEST_F(Facade, TakesEveryFieldOfASnapshotFromItsOwnItem) {
  IMFAttributes* const store = m_pFacade->Attributes();
  for (UINT32 i = 0; i < kSettingDefaults.size(); ++i) store->SetUINT32(kSettingDefaults[i].key, 100 + i);
  m_pFacade->put_ROIRight(300);
  unsigned version = 0, later = 0;
  const StabilizerSettings settings = m_pFacade->TakeSnapshot(&version);
  EXPECT_EQ(settings.ROI.top, 101);
  EXPECT_EQ(settings.ROI.left, 102);
  EXPECT_EQ(settings.ROI.bottom, 300);
  EXPECT_EQ(settings.ROI.right, 300);
  EXPECT_EQ(settings.GlobalEstimationCoefficients, 106);
  EXPECT_EQ(settings.GlobalEstimationQuality, 107);
  EXPECT_EQ(settings.PathSmoothingLevel, 108);
  EXPECT_EQ(settings.BkFillColor, (std::array<std::uint8_t, 3>{0, 0, 109}));
  EXPECT_EQ(settings.LeftRightCropMargin, 110);
  EXPECT_EQ(settings.TopBottomCropMargin, 111);
  EXPECT_EQ(settings.InterpolationType, 113);
  EXPECT_EQ(settings.ClippingOption, 114);
  EXPECT_TRUE(settings.Enabled && settings.ROIEnabled && settings.CropEnabled && settings.UseAdvancedEngine &&
              settings.AdvancedEngineAvailable);
  for (const GUID& key : {VKVSTAB_ATTR_ENABLED, VKVSTAB_ATTR_ROI_ENABLED, VKVSTAB_ATTR_CROP_ENABLED,
                          VKVSTAB_ATTR_USE_ADVANCED_ENGINE, VKVSTAB_ATTR_ADVANCED_ENGINE_AVAILABLE})
    store->SetUINT32(key, 0);
  const StabilizerSettings off = m_pFacade->TakeSnapshot(&later);
  EXPECT_FALSE(off.Enabled || off.ROIEnabled || off.CropEnabled || off.UseAdvancedEngine ||
               off.AdvancedEngineAvailable);
  EXPECT_EQ(later, version + 5) << "one change a write";
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

TEST_F(Facade, PropertiesReadAndWriteTheirOwnItems) {
  m_pFacade->put_Enabled(VARIANT_FALSE);
  m_pFacade->put_AutoReconnect(VARIANT_FALSE);
  m_pFacade->put_ROIEnabled(1);  // any non-zero value is true
  m_pFacade->put_ROITop(-11);
  m_pFacade->put_ROILeft(12);
  m_pFacade->put_GlobalEstimationCoefficients(vkvstab_GLOBALESTIMATIONCOEFFICIENTS_X_Y_THETA);
  m_pFacade->put_GlobalEstimationQuality(std::bit_cast<vkvstab_GlobalEstimationQuality>(7));
  m_pFacade->put_PathSmoothingLevel(std::bit_cast<vkvstab_PathSmoothingLevel>(5));
  m_pFacade->put_CropEnabled(VARIANT_TRUE);
  m_pFacade->put_LeftRightCropMargin(-3);
  m_pFacade->put_TopBottomCropMargin(1 << 30);
  m_pFacade->put_InterpolationType(std::bit_cast<vkvstab_InterpolationType>(-1));
  m_pFacade->put_ClippingOption(std::bit_cast<vkvstab_enumClippingOption>(9));
  m_pFacade->put_UseAdvancedEngine(VARIANT_TRUE);
  const std::pair<GUID, UINT32> expected[] = {{VKVSTAB_ATTR_ENABLED, 0},
                                              {VKVSTAB_ATTR_AUTO_RECONNECT, 0},
                                              {VKVSTAB_ATTR_ROI_ENABLED, 1},
                                              {VKVSTAB_ATTR_ROI_TOP, static_cast<UINT32>(-11)},
                                              {VKVSTAB_ATTR_ROI_LEFT, 12},
                                              {VKVSTAB_ATTR_ESTIMATION_COEFFICIENTS, 1},
                                              {VKVSTAB_ATTR_ESTIMATION_QUALITY, 7},
                                              {VKVSTAB_ATTR_PATH_SMOOTHING_LEVEL, 5},
                                              {VKVSTAB_ATTR_CROP_ENABLED, 1},
                                              {VKVSTAB_ATTR_LEFT_RIGHT_CROP_MARGIN, static_cast<UINT32>(-3)},
                                              {VKVSTAB_ATTR_TOP_BOTTOM_CROP_MARGIN, 1U << 30},
                                              {VKVSTAB_ATTR_INTERPOLATION_TYPE, 0xFFFFFFFF},
                                              {VKVSTAB_ATTR_CLIPPING_OPTION, 9},
                                              {VKVSTAB_ATTR_USE_ADVANCED_ENGINE, 1}};
  for (std::size_t i = 0; i < std::size(expected); ++i)
    EXPECT_EQ(Item(expected[i].first), expected[i].second) << i;
  EXPECT_EQ(Read(m_pFacade.Get(), &CVKVStabilizeImpl::get_ROIEnabled), VARIANT_TRUE);
  EXPECT_EQ(Read(m_pFacade.Get(), &CVKVStabilizeImpl::get_ROITop), -11);
  EXPECT_EQ(std::bit_cast<int>(Read(m_pFacade.Get(), &CVKVStabilizeImpl::get_GlobalEstimationQuality)), 7);
  EXPECT_EQ(std::bit_cast<int>(Read(m_pFacade.Get(), &CVKVStabilizeImpl::get_InterpolationType)), -1);
}

TEST_F(Facade, TheRightEdgeIsTheBottomEdge) {
  m_pFacade->put_ROIRight(300);
  EXPECT_EQ(Read(m_pFacade.Get(), &CVKVStabilizeImpl::get_ROIBottom), 300);
  EXPECT_EQ(Item(VKVSTAB_ATTR_ROI_BOTTOM), 300U);
  EXPECT_EQ(Item(VKVSTAB_ATTR_ROI_RIGHT), 10000U);
  m_pFacade->put_ROIBottom(200);
  EXPECT_EQ(Read(m_pFacade.Get(), &CVKVStabilizeImpl::get_ROIRight), 200);
}

TEST_F(Facade, StoresColoursTranslatedAndRefusesOthers) {
  EXPECT_EQ(m_pFacade->put_BkFillColor(0x80000000U | COLOR_WINDOW), S_OK);
  EXPECT_EQ(Read(m_pFacade.Get(), &CVKVStabilizeImpl::get_BkFillColor), GetSysColor(COLOR_WINDOW));
  EXPECT_EQ(m_pFacade->put_BkFillColor(0x00112233), S_OK);
  EXPECT_EQ(m_pFacade->put_BkFillColor(0x05123456), E_INVALIDARG);
  EXPECT_EQ(Item(VKVSTAB_ATTR_BK_FILL_COLOR), 0x00112233U);

  // A colour that got into the store another way is black, and the frame is processed all the same.
  m_pFacade->Attributes()->SetUINT32(VKVSTAB_ATTR_BK_FILL_COLOR, 0x05123456);
  EXPECT_EQ(Feed(), 0);
  EXPECT_EQ(m_assertions, std::vector<std::string>{"vkvstabilizeimpl: SUCCEEDED ( hr )"});
}

TEST_F(Facade, FillsWithTheColourOfTheSetting) {
  m_pFacade->put_BkFillColor(RGB(30, 20, 10));
  m_pFacade->put_PathSmoothingLevel(vkvstab_PATHSMOOTHINGLEVEL_1);
  EXPECT_EQ(FramesBeforeOutput(), 2);
  EXPECT_EQ(Bytes(m_frame.end() - 3, m_frame.end()), (Bytes{10, 20, 30})) << "the last row is background";
}

TEST_F(Facade, MissingItemsReadTrueForTwoFlagsAndNothingElse) {
  m_pFacade->Attributes()->DeleteAllItems();
  const auto readsTrue = [&](auto get) { return Read(m_pFacade.Get(), get) == VARIANT_TRUE; };
  EXPECT_TRUE(readsTrue(&CVKVStabilizeImpl::get_Enabled));
  EXPECT_TRUE(readsTrue(&CVKVStabilizeImpl::get_AutoReconnect));
  EXPECT_FALSE(readsTrue(&CVKVStabilizeImpl::get_ROIEnabled));
  EXPECT_FALSE(readsTrue(&CVKVStabilizeImpl::get_CropEnabled));
  EXPECT_FALSE(readsTrue(&CVKVStabilizeImpl::get_UseAdvancedEngine));
  EXPECT_FALSE(readsTrue(&CVKVStabilizeImpl::get_AdvancedEngineAvailable));
  EXPECT_EQ(Read(m_pFacade.Get(), &CVKVStabilizeImpl::get_PathSmoothingLevel), 0);
  EXPECT_EQ(Read(m_pFacade.Get(), &CVKVStabilizeImpl::get_ROIBottom), 0);
  EXPECT_EQ(Read(m_pFacade.Get(), &CVKVStabilizeImpl::get_BkFillColor), 0U);

  // What counts as there already is not stored.
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
  EXPECT_FALSE(readsTrue(&CVKVStabilizeImpl::get_UseAdvancedEngine)) << "put true, and still false";
  m_pFacade->put_UseAdvancedEngine(VARIANT_FALSE);
  EXPECT_EQ(Item(VKVSTAB_ATTR_USE_ADVANCED_ENGINE), 0U);
}

TEST_F(Facade, TellsTheTransformOnlyWhatCanChangeTheOutput) {
  IMFAttributes* const store = m_pFacade->Attributes();
  m_pFacade->put_ClippingOption(vkvstab_CLIPPINGOPTIONS_CROP);
  m_pFacade->put_LeftRightCropMargin(5);
  EXPECT_EQ(m_callback.calls, 0) << "cropping is off";
  m_pFacade->put_CropEnabled(VARIANT_TRUE);
  EXPECT_EQ(m_callback.calls, 1);
  m_pFacade->put_CropEnabled(VARIANT_TRUE);
  m_pFacade->put_LeftRightCropMargin(5);
  EXPECT_EQ(m_callback.calls, 1) << "puts of what is there";
  m_pFacade->put_AutoReconnect(VARIANT_FALSE);
  EXPECT_EQ(m_callback.calls, 2) << "any setting, while cropping";
  store->SetUINT32(VKVSTAB_ATTR_ENABLED, 1);
  EXPECT_EQ(m_callback.calls, 3) << "a store write, even of what is there";
  store->DeleteItem(VKVSTAB_ATTR_ENABLED);
  EXPECT_EQ(m_callback.calls, 3) << "deletions are silent";
  m_pFacade->ResetToDefaults();
  EXPECT_EQ(m_callback.calls, 3) << "cropping is off after a reset";
  m_pFacade->put_CropEnabled(VARIANT_TRUE);
  EXPECT_EQ(m_callback.calls, 3) << "another clipping option";
}

TEST_F(Facade, SaysWhenAndHowTheFrameShrinks) {
  const auto outputSize = [&](LONG width, LONG height) {
    SIZE size = {width, height};
    m_pFacade->GetOutputSize(size);
    return std::pair(size.cx, size.cy);
  };
  m_pFacade->put_LeftRightCropMargin(10);
  m_pFacade->put_TopBottomCropMargin(20);
  m_pFacade->put_ClippingOption(vkvstab_CLIPPINGOPTIONS_CROP);
  EXPECT_FALSE(m_pFacade->ChangesFrameSize());
  EXPECT_EQ(outputSize(640, 480), std::pair(640L, 480L));
  m_pFacade->put_CropEnabled(VARIANT_TRUE);
  EXPECT_TRUE(m_pFacade->ChangesFrameSize());
  EXPECT_EQ(outputSize(640, 480), std::pair(620L, 440L));
  m_pFacade->put_Enabled(VARIANT_FALSE);
  EXPECT_FALSE(m_pFacade->ChangesFrameSize());
  EXPECT_EQ(outputSize(640, 480), std::pair(620L, 440L)) << "whether enabled or not";
  m_pFacade->put_Enabled(VARIANT_TRUE);
  m_pFacade->put_LeftRightCropMargin(0);
  EXPECT_TRUE(m_pFacade->ChangesFrameSize());
  m_pFacade->put_TopBottomCropMargin(-1);
  EXPECT_FALSE(m_pFacade->ChangesFrameSize());
  EXPECT_TRUE(m_assertions.empty());
  outputSize(0, 480);
  EXPECT_EQ(m_assertions, std::vector<std::string>{"vkvstabilizeimpl: ( sz.cx > 0 ) && ( sz.cy > 0 )"});
}

TEST_F(Facade, RunsTheAdvancedEngineOnlyWhenThereIsOneAndItIsChosen) {
  EXPECT_FALSE(m_pFacade->IsAdvancedEngineActive());
  m_pFacade->put_UseAdvancedEngine(VARIANT_TRUE);
  EXPECT_FALSE(m_pFacade->IsAdvancedEngineActive());
  m_pFacade->SetAdvancedEngineAvailable(true);
  EXPECT_TRUE(m_pFacade->IsAdvancedEngineActive());
  EXPECT_EQ(Item(VKVSTAB_ATTR_ADVANCED_ENGINE_AVAILABLE), 1U);
  m_pFacade->put_UseAdvancedEngine(VARIANT_FALSE);
  EXPECT_FALSE(m_pFacade->IsAdvancedEngineActive());
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

TEST_F(Facade, ReportsAKernelThatCannotBeSetUp) {
  m_pFacade->put_PathSmoothingLevel(std::bit_cast<vkvstab_PathSmoothingLevel>(5));
  EXPECT_EQ(Feed(), -1);
  EXPECT_EQ(m_assertions,
            (std::vector<std::string>{"vkvstabilizeimpl: fRet",
                                      "vkvstabilizeimpl: m_pStabilizeVideoKernel->IsInitialized ( )"}));
  m_assertions = {};
  m_pFacade->put_PathSmoothingLevel(vkvstab_PATHSMOOTHINGLEVEL_1);
  EXPECT_EQ(FramesBeforeOutput(), 2);
  EXPECT_EQ(Feed(16, 12), 1);
  EXPECT_TRUE(m_assertions.empty());
}

TEST_F(Facade, ClampsRegionAndMarginsForTheKernel) {
  m_pFacade->put_PathSmoothingLevel(vkvstab_PATHSMOOTHINGLEVEL_1);
  m_pFacade->put_CropEnabled(VARIANT_TRUE);
  m_pFacade->put_LeftRightCropMargin(5000);
  m_pFacade->put_TopBottomCropMargin(-7);
  m_pFacade->put_ROIEnabled(VARIANT_TRUE);
  m_pFacade->put_ROILeft(500);
  m_pFacade->put_ROIRight(600);
  EXPECT_EQ(Feed(), 1) << "a region outside lets frames pass";
  m_pFacade->put_ROILeft(-100);
  EXPECT_EQ(FramesBeforeOutput(), 2);
}

TEST_F(Facade, AResetThatFailsStopsThereAndLeavesTheStoreLocked) {
  *m_pFacade.ReleaseAndGetAddressOf() =
      new CVKVStabilizeImpl(GUID_NULL, &m_callback, &FailingAttributes::Create);
  for (const SettingDefault& setting : kSettingDefaults) m_pFacade->Attributes()->SetUINT32(setting.key, 1);
  const int callsBefore = m_callback.calls;
  FailingAttributes::writesLeft = 4;
  EXPECT_EQ(m_pFacade->ResetToDefaults(), E_ACCESSDENIED);
  FailingAttributes::writesLeft = FailingAttributes::kNoFailure;
  EXPECT_EQ(Item(VKVSTAB_ATTR_ROI_BOTTOM), 10000U) << "the fourth item was written";
  EXPECT_EQ(Item(VKVSTAB_ATTR_ROI_RIGHT), 1U) << "the fifth was not";
  EXPECT_EQ(Item(VKVSTAB_ATTR_PATH_SMOOTHING_LEVEL), 1U);
  m_pFacade->put_LeftRightCropMargin(9);
  EXPECT_EQ(m_callback.calls, callsBefore) << "still inside the lock of the reset";
  m_pFacade->Attributes()->UnlockStore();
  EXPECT_EQ(m_callback.calls, callsBefore + 1);
}

TEST_F(Facade, OutlivesItsTransformAndIsOutlivedByItsStore) {
  ComPtr<IMFAttributes> store(m_pFacade->Attributes());
  {
    CallbackCounter transform;
    m_pFacade = MakeFacade(&transform);
    m_pFacade->put_ClippingOption(vkvstab_CLIPPINGOPTIONS_CROP);
    m_pFacade->put_CropEnabled(VARIANT_TRUE);
    EXPECT_EQ(transform.calls, 1);
    m_pFacade->DetachCallback();
    m_pFacade->put_LeftRightCropMargin(3);
    EXPECT_EQ(transform.calls, 1);
  }
  EXPECT_EQ(m_pFacade->put_LeftRightCropMargin(4), S_OK);
  EXPECT_EQ(m_pFacade.Reset(), 0U);
  EXPECT_EQ(store->SetUINT32(VKVSTAB_ATTR_CROP_ENABLED, 1), S_OK) << "nobody is left to notify";
}

TEST_F(Facade, CallsNoTransformThatTookItsLeaveBeforeTheStoreWasMade) {
  static bool fails = true;
  *m_pFacade.ReleaseAndGetAddressOf() =
      new CVKVStabilizeImpl(GUID_NULL, &m_callback, [](IMFAttributes** attributes, UINT32 size) {
        return fails ? E_ACCESSDENIED : MFCreateAttributes(attributes, size);
      });
  m_pFacade->DetachCallback();
  fails = false;
  EXPECT_EQ(m_pFacade->ResetToDefaults(), S_OK);
  m_pFacade->put_ClippingOption(vkvstab_CLIPPINGOPTIONS_CROP);
  m_pFacade->put_CropEnabled(VARIANT_TRUE);
  EXPECT_EQ(m_callback.calls, 0);
  EXPECT_EQ(Item(VKVSTAB_ATTR_CROP_ENABLED), 1U);
}

TEST_F(Facade, LivesWithoutAKernel) {
  {
    const FailingAllocations kernel(sizeof(CStabilizeVideoKernel), sizeof(CStabilizeVideoKernel));
    m_pFacade = MakeFacade();
  }
  EXPECT_EQ(Feed(), -1);
  EXPECT_TRUE(m_pFacade->Reset());
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

TEST_F(Facade, TracesChanges) {
  m_traces = {};
  m_pFacade->put_ROITop(3);
  EXPECT_EQ(m_traces, std::vector<std::string>{"\nCVKVStabilizeImpl::AttributesChanged"});
}

TEST_F(Facade, LivesWithoutAStore) {
  const auto fail = [](IMFAttributes**, UINT32) -> HRESULT { return E_ACCESSDENIED; };
  *m_pFacade.ReleaseAndGetAddressOf() = new CVKVStabilizeImpl(GUID_NULL, &m_callback, fail);
  EXPECT_EQ(m_pFacade->ResetToDefaults(), E_ACCESSDENIED);
  EXPECT_EQ(m_pFacade->LoadAttributes(), E_ACCESSDENIED);
  EXPECT_EQ(m_pFacade->SaveAttributes(), E_ACCESSDENIED);
  EXPECT_EQ(Read(m_pFacade.Get(), &CVKVStabilizeImpl::get_Enabled), VARIANT_TRUE);
  EXPECT_EQ(m_pFacade->put_AutoReconnect(VARIANT_FALSE), S_OK);
  EXPECT_EQ(m_pFacade->put_ROITop(5), S_OK);
  m_pFacade->DetachCallback();
  EXPECT_EQ(FramesBeforeOutput(), 16) << "the record's own defaults";
}

TEST_F(Facade, StaysWholeUnderManyThreads) {
  std::atomic<int> frames = 0;
  // The transform asks from its callback.
  struct Asking : VKVStabilizeImplCB {
    HRESULT STDMETHODCALLTYPE OutputChanged() override {
      SIZE size = {64, 48};
      if (facade->ChangesFrameSize()) facade->GetOutputSize(size);
      return S_OK;
    }
    CVKVStabilizeImpl* facade = nullptr;
  } transform;
  m_pFacade = MakeFacade(&transform);
  transform.facade = m_pFacade.Get();
  m_pFacade->SaveAttributes();
  CVKVStabilizeImpl* const facade = m_pFacade.Get();
  ThreadTeam team;
  for (int i = 0; i < 2; ++i) {
    team.Repeat([&](std::mt19937&) {
      Bytes frame(static_cast<std::size_t>(FrameGeometry(64, 48).SizeBytes()));
      bool noOutput = false;
      facade->ProcessFrame(frame.data(), 64, 48, false, &noOutput);
      ++frames;
    });
  }
  team.Repeat([&](std::mt19937& random) {
    facade->put_PathSmoothingLevel(std::bit_cast<vkvstab_PathSmoothingLevel>(random() % 2 == 0 ? 4 : 8));
    facade->put_CropEnabled(random() % 2 == 0 ? VARIANT_TRUE : VARIANT_FALSE);
    facade->put_ClippingOption(vkvstab_CLIPPINGOPTIONS_CROP);
    facade->put_LeftRightCropMargin(static_cast<LONG>(random() % 50));
  });
  team.Repeat([&](std::mt19937&) {
    facade->put_AutoReconnect(VARIANT_FALSE);
    facade->put_AutoReconnect(VARIANT_TRUE);
    facade->ChangesFrameSize();
    facade->IsReconnectPending();
  });
  team.Repeat([&](std::mt19937&) { EXPECT_EQ(facade->ResetToDefaults(), S_OK); });
  team.Repeat([&](std::mt19937&) { EXPECT_EQ(facade->LoadAttributes(), S_OK); });
  team.Repeat([&](std::mt19937&) { EXPECT_EQ(facade->SaveAttributes(), S_OK); });
  team.Repeat([&](std::mt19937&) {
    const CStoreLock lock(facade->Attributes());
    facade->Attributes()->SetUINT32(VKVSTAB_ATTR_CROP_ENABLED, 1);
    facade->Attributes()->SetUINT32(VKVSTAB_ATTR_CLIPPING_OPTION, 1);
    SIZE size = {64, 48};
    facade->GetOutputSize(size);
    facade->ResetToDefaults();
  });
  team.Repeat([&](std::mt19937&) { facade->Reset(); });
  team.WorkFor(std::chrono::seconds(2));
  EXPECT_GT(frames, 10);
  // At whatever moment settings were taken, they were whole: the kernel could always be set up with them.
  EXPECT_EQ(std::count(m_assertions.begin(), m_assertions.end(), "vkvstabilizeimpl: fRet"), 0);
  m_assertions = {};
  facade->ResetToDefaults();
  facade->Reset();
  EXPECT_EQ(FramesBeforeOutput(), 16);
}

}  // namespace
