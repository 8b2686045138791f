#include "engine/vkvstabilizeimpl.h"

#include <bit>
#include <mfapi.h>
#include <new>
#include <olectl.h>
#include <optional>

#include "common/debugreport.h"
#include "common/module.h"
#include "common/typelibrary.h"
#include "engine/settingskeys.h"

using Microsoft::WRL::ComPtr;

namespace {

constexpr char kFile[] = "vkvstabilizeimpl";

// Settings reach the kernel with the automation interface's numbers.
static_assert(vkvstab_CLIPPINGOPTIONS_CROP == static_cast<int>(ClippingOption::Crop));
static_assert(vkvstab_CLIPPINGOPTIONS_CROPANDSTRETCH == static_cast<int>(ClippingOption::CropAndStretch));
static_assert(vkvstab_GLOBALESTIMATIONCOEFFICIENTS_X_Y_THETA ==
              static_cast<int>(EstimationCoefficients::XYTheta));
static_assert(vkvstab_INTERPOLATIONTYPE_NEAREST == static_cast<int>(Interpolation::Nearest));

constexpr VARIANT_BOOL ToVariantBool(bool value) { return value ? VARIANT_TRUE : VARIANT_FALSE; }

/// Empty when the item or the store is missing.
std::optional<UINT32> ReadItem(IMFAttributes* store, const GUID& key) {
  UINT32 value = 0;
  if (store && SUCCEEDED(store->GetUINT32(key, &value))) return value;
  return std::nullopt;
}

bool AssertSucceeded(HRESULT hr) {
  DebugAssert(SUCCEEDED(hr), "SUCCEEDED ( hr )", kFile);
  return SUCCEEDED(hr);
}

}  // namespace

CVKVStabilizeImpl::CVKVStabilizeImpl(VKVStabilizeImplCB* callback,
                                     MyAttributes::CreateFunction createAttributes)
    : m_createAttributes(createAttributes),
      m_pCallback(callback),
      m_pStabilizeVideoKernel(new (std::nothrow) CStabilizeVideoKernel) {
  ResetToDefaults();
}

CVKVStabilizeImpl::~CVKVStabilizeImpl() {
  if (m_pStore) m_pStore->SetCallback(nullptr);
}

void CVKVStabilizeImpl::DetachCallback() {
  m_pCallback = nullptr;
  const CStoreLock waitForARunningCall(Store());
}

HRESULT CVKVStabilizeImpl::CreateStore() {
  if (Store()) return S_OK;
  // No thread holds the lock of a store that does not exist, so taking that lock below cannot deadlock.
  const CAutoLock lock(m_creationLock);
  if (m_pStore) return S_OK;
  HRESULT hr =
      MyAttributes::Create(m_createAttributes, static_cast<UINT32>(kSettingDefaults.size()), &m_pStore);
  if (FAILED(hr)) return hr;
  m_pStore->SetCallback(this);
  // Readers get the store only when its defaults are written, so they do not see it without items.
  hr = WriteDefaults(m_pStore.Get());
  m_pAttributes = m_pStore.Get();
  return hr;
}

// Frames

bool CVKVStabilizeImpl::ProcessFrame(std::uint8_t* pixels, std::uint32_t width, std::uint32_t height,
                                     bool repeatPrevious, bool* noOutput) {
  if (!IsKernelUpToDate())
    InitializeKernel({static_cast<std::int32_t>(width), static_cast<std::int32_t>(height)});

  const CAutoLock lock(m_kernelLock);
  const bool isInitialized = m_pStabilizeVideoKernel && m_pStabilizeVideoKernel->IsInitialized();
  DebugAssert(isInitialized, "m_pStabilizeVideoKernel->IsInitialized ( )", kFile);
  if (!isInitialized) {
    *noOutput = true;
    return false;
  }
  const bool fRet = m_pStabilizeVideoKernel->ProcessFrame(pixels, repeatPrevious, noOutput);
  DebugAssert(fRet, "fRet", kFile);
  return fRet;
}

unsigned CVKVStabilizeImpl::StreamNumber() {
  const CAutoLock lock(m_kernelLock);
  return m_streamNumber;
}

bool CVKVStabilizeImpl::Reset() {
  const CAutoLock lock(m_kernelLock);
  if (m_pStabilizeVideoKernel) {
    m_pStabilizeVideoKernel->Reset();
    m_pStabilizeVideoKernel->Release();
  }
  return true;
}

bool CVKVStabilizeImpl::IsKernelUpToDate() {
  {
    const CAutoLock lock(m_kernelLock);
    if (!m_pStabilizeVideoKernel || !m_pStabilizeVideoKernel->IsInitialized()) return false;
  }
  const CAutoLock lock(m_changeLock);
  return !(m_settingsChanged && ReadFlag(VKVSTAB_ATTR_AUTO_RECONNECT, Missing::True));
}

void CVKVStabilizeImpl::InitializeKernel(FrameSize frame) {
  unsigned version = 0;
  const KernelParams params = MakeKernelParams(TakeSnapshot(&version), frame);
  {
    const CAutoLock lock(m_kernelLock);
    ++m_streamNumber;
    const bool fRet = m_pStabilizeVideoKernel && m_pStabilizeVideoKernel->Initialize(params);
    DebugAssert(fRet, "fRet", kFile);
  }
  ClearSettingsChanged(version);
}

// The transform calls these two from its callback, which runs with the store locked. The settings lock comes
// before the store's, so they must not take it.

void CVKVStabilizeImpl::GetOutputSize(SIZE& sz) {
  const FrameSize output = ::GetOutputSize(ReadSettings(), {sz.cx, sz.cy});
  sz = {output.width, output.height};
  DebugAssert((sz.cx > 0) && (sz.cy > 0), "( sz.cx > 0 ) && ( sz.cy > 0 )", kFile);
}

bool CVKVStabilizeImpl::ChangesFrameSize() { return ::ChangesFrameSize(ReadSettings()); }

// Changes

HRESULT CVKVStabilizeImpl::AttributesChanged() {
  DebugTrace("\nCVKVStabilizeImpl::AttributesChanged");
  const CStoreLock lock(m_pStore.Get());
  MarkSettingsChanged();
  if (IsCropping(ReadSettings())) NotifyOutputChanged();
  m_pStore->ClearDirty();
  return S_OK;
}

void CVKVStabilizeImpl::NotifyOutputChanged() {
  if (VKVStabilizeImplCB* const callback = m_pCallback) callback->OutputChanged();
}

void CVKVStabilizeImpl::MarkSettingsChanged() {
  const CAutoLock lock(m_changeLock);
  m_settingsChanged = true;
  ++m_settingsVersion;
}

unsigned CVKVStabilizeImpl::SettingsVersion() {
  const CAutoLock lock(m_changeLock);
  return m_settingsVersion;
}

void CVKVStabilizeImpl::ClearSettingsChanged(unsigned version) {
  const CAutoLock lock(m_changeLock);
  // Changes after this snapshot stay pending. That holds even when another thread has already set the kernel
  // up with them: this older set-up may have come last.
  m_settingsChanged = version != m_settingsVersion;
}

bool CVKVStabilizeImpl::IsReconnectPending() {
  const CAutoLock lock(m_changeLock);
  return m_reconnectPending && ReadFlag(VKVSTAB_ATTR_AUTO_RECONNECT, Missing::True);
}

void CVKVStabilizeImpl::ClearReconnectPending() {
  const CAutoLock lock(m_changeLock);
  m_reconnectPending = false;
}

// Reading all settings

StabilizerSettings CVKVStabilizeImpl::ReadSettings() const {
  StabilizerSettings settings;
  const CStoreLock lock(Store());
  if (!Store()) return settings;
  settings.Enabled = ReadFlag(VKVSTAB_ATTR_ENABLED, Missing::True);
  settings.ROIEnabled = ReadFlag(VKVSTAB_ATTR_ROI_ENABLED, Missing::False);
  settings.ROI.top = ReadNumber(VKVSTAB_ATTR_ROI_TOP);
  settings.ROI.left = ReadNumber(VKVSTAB_ATTR_ROI_LEFT);
  settings.ROI.bottom = ReadNumber(VKVSTAB_ATTR_ROI_BOTTOM);
  settings.ROI.right = ReadNumber(VKVSTAB_ATTR_ROI_BOTTOM);  // see get_ROIRight
  settings.GlobalEstimationCoefficients = ReadNumber(VKVSTAB_ATTR_ESTIMATION_COEFFICIENTS);
  settings.GlobalEstimationQuality = ReadNumber(VKVSTAB_ATTR_ESTIMATION_QUALITY);
  settings.PathSmoothingLevel = ReadNumber(VKVSTAB_ATTR_PATH_SMOOTHING_LEVEL);
  settings.CropEnabled = ReadFlag(VKVSTAB_ATTR_CROP_ENABLED, Missing::False);
  settings.LeftRightCropMargin = ReadNumber(VKVSTAB_ATTR_LEFT_RIGHT_CROP_MARGIN);
  settings.TopBottomCropMargin = ReadNumber(VKVSTAB_ATTR_TOP_BOTTOM_CROP_MARGIN);
  settings.InterpolationType = ReadNumber(VKVSTAB_ATTR_INTERPOLATION_TYPE);
  settings.ClippingOption = ReadNumber(VKVSTAB_ATTR_CLIPPING_OPTION);
  settings.UseAdvancedEngine = ReadFlag(VKVSTAB_ATTR_USE_ADVANCED_ENGINE, Missing::False);
  settings.AdvancedEngineAvailable = ReadFlag(VKVSTAB_ATTR_ADVANCED_ENGINE_AVAILABLE, Missing::False);
  return settings;
}

StabilizerSettings CVKVStabilizeImpl::TakeSnapshot(unsigned* version) {
  // The settings lock keeps out puts, the store's lock keeps out batches of writes.
  const CAutoLock lock(m_settingsLock);
  const CStoreLock storeLock(Store());
  *version = SettingsVersion();
  StabilizerSettings settings = ReadSettings();
  if (!Store()) return settings;
  // The item may hold a number that is not a colour.
  const auto color = std::bit_cast<OLE_COLOR>(ReadNumber(VKVSTAB_ATTR_BK_FILL_COLOR));
  COLORREF translated = 0;
  if (AssertSucceeded(OleTranslateColor(color, nullptr, &translated)))
    settings.BkFillColor = {GetBValue(translated), GetGValue(translated), GetRValue(translated)};
  return settings;
}

bool CVKVStabilizeImpl::IsAdvancedEngineActive() {
  const CAutoLock lock(m_settingsLock);
  // Both items are read from one inner store: else a load in between would mix old and new items.
  const ComPtr<IMFAttributes> items = Store() ? Store()->Inner() : nullptr;
  return ReadFlag(items.Get(), VKVSTAB_ATTR_ADVANCED_ENGINE_AVAILABLE, Missing::False) &&
         ReadFlag(items.Get(), VKVSTAB_ATTR_USE_ADVANCED_ENGINE, Missing::False);
}

void CVKVStabilizeImpl::SetAdvancedEngineAvailable(bool available) {
  const CAutoLock lock(m_settingsLock);
  WriteFlagIfDifferent(VKVSTAB_ATTR_ADVANCED_ENGINE_AVAILABLE, Missing::False, available);
}

// IUnknown

STDMETHODIMP CVKVStabilizeImpl::QueryInterface(REFIID iid, void** object) {
  if (!object) return E_POINTER;
  const bool isOurs = iid == __uuidof(IDispatch) || iid == __uuidof(IVKFVStabilize);
  *object = isOurs ? static_cast<IVKFVStabilize*>(this) : nullptr;
  if (!isOurs) return E_NOINTERFACE;
  AddRef();
  return S_OK;
}

// IDispatch

HRESULT CVKVStabilizeImpl::LoadTypeInfo(ITypeInfo** typeInfo) {
  const CAutoLock lock(m_settingsLock);
  if (!m_pTypeInfo) {
    ComPtr<ITypeLib> library;
    HRESULT hr = LoadModuleTypeLibrary(CurrentModule(), &library);
    if (SUCCEEDED(hr)) hr = library->GetTypeInfoOfGuid(__uuidof(IVKFVStabilize), &m_pTypeInfo);
    if (FAILED(hr)) return hr;
  }
  return m_pTypeInfo.CopyTo(typeInfo);
}

STDMETHODIMP CVKVStabilizeImpl::GetTypeInfoCount(UINT* count) {
  if (!count) return E_POINTER;
  *count = 1;
  return S_OK;
}

STDMETHODIMP CVKVStabilizeImpl::GetTypeInfo(UINT index, LCID, ITypeInfo** typeInfo) {
  if (!typeInfo) return E_POINTER;
  *typeInfo = nullptr;
  return index == 0 ? LoadTypeInfo(typeInfo) : DISP_E_BADINDEX;
}

STDMETHODIMP CVKVStabilizeImpl::GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) {
  ComPtr<ITypeInfo> typeInfo;
  const HRESULT hr = LoadTypeInfo(&typeInfo);
  return FAILED(hr) ? hr : typeInfo->GetIDsOfNames(names, count, ids);
}

STDMETHODIMP CVKVStabilizeImpl::Invoke(DISPID id, REFIID, LCID, WORD flags, DISPPARAMS* parameters,
                                       VARIANT* result, EXCEPINFO* exception, UINT* badArgument) {
  ComPtr<ITypeInfo> typeInfo;
  const HRESULT hr = LoadTypeInfo(&typeInfo);
  if (FAILED(hr)) return hr;
  return typeInfo->Invoke(static_cast<IVKFVStabilize*>(this), id, flags, parameters, result, exception,
                          badArgument);
}

// Access to the items

bool CVKVStabilizeImpl::ReadFlag(IMFAttributes* store, const GUID& key, Missing missing) {
  const std::optional<UINT32> value = ReadItem(store, key);
  return value ? *value != 0 : missing == Missing::True;
}

std::int32_t CVKVStabilizeImpl::ReadNumber(const GUID& key) const {
  return std::bit_cast<std::int32_t>(ReadItem(Store(), key).value_or(0));
}

HRESULT CVKVStabilizeImpl::GetFlag(const GUID& key, Missing missing, VARIANT_BOOL* pVal) {
  if (!pVal) return E_POINTER;
  const CAutoLock lock(m_settingsLock);
  *pVal = ToVariantBool(ReadFlag(key, missing));
  return S_OK;
}

void CVKVStabilizeImpl::WriteFlagIfDifferent(const GUID& key, Missing missing, bool value) {
  if (Store() && ReadFlag(key, missing) != value) Store()->SetUINT32(key, value ? 1 : 0);
}

HRESULT CVKVStabilizeImpl::PutFlag(const GUID& key, Missing missing, VARIANT_BOOL newVal) {
  const CAutoLock lock(m_settingsLock);
  WriteFlagIfDifferent(key, missing, newVal != VARIANT_FALSE);
  return S_OK;
}

// Items hold the bits of numbers and enumerations, so a get returns any 32-bit value as it was put.
template <class Number>
HRESULT CVKVStabilizeImpl::GetNumber(const GUID& key, Number* pVal) {
  if (!pVal) return E_POINTER;
  const CAutoLock lock(m_settingsLock);
  *pVal = std::bit_cast<Number>(ReadNumber(key));
  return S_OK;
}

template <class Number>
HRESULT CVKVStabilizeImpl::PutNumber(const GUID& key, Number newVal) {
  const CAutoLock lock(m_settingsLock);
  if (Store() && ReadNumber(key) != std::bit_cast<std::int32_t>(newVal))
    Store()->SetUINT32(key, std::bit_cast<UINT32>(newVal));
  return S_OK;
}

// The properties

STDMETHODIMP CVKVStabilizeImpl::get_Enabled(VARIANT_BOOL* pVal) {
  return GetFlag(VKVSTAB_ATTR_ENABLED, Missing::True, pVal);
}

STDMETHODIMP CVKVStabilizeImpl::put_Enabled(VARIANT_BOOL newVal) {
  return PutFlag(VKVSTAB_ATTR_ENABLED, Missing::True, newVal);
}

STDMETHODIMP CVKVStabilizeImpl::get_AutoReconnect(VARIANT_BOOL* pVal) {
  if (!pVal) return E_POINTER;
  *pVal = ToVariantBool(ReadFlag(VKVSTAB_ATTR_AUTO_RECONNECT, Missing::True));
  return S_OK;
}

STDMETHODIMP CVKVStabilizeImpl::put_AutoReconnect(VARIANT_BOOL newVal) {
  // Releasing the store's lock calls the callbacks. The change lock is the inner one, so it is free by then.
  const CStoreLock storeLock(Store());
  const CAutoLock lock(m_changeLock);
  WriteFlagIfDifferent(VKVSTAB_ATTR_AUTO_RECONNECT, Missing::True, newVal != VARIANT_FALSE);
  return S_OK;
}

STDMETHODIMP CVKVStabilizeImpl::get_ROIEnabled(VARIANT_BOOL* pVal) {
  return GetFlag(VKVSTAB_ATTR_ROI_ENABLED, Missing::False, pVal);
}

STDMETHODIMP CVKVStabilizeImpl::put_ROIEnabled(VARIANT_BOOL newVal) {
  return PutFlag(VKVSTAB_ATTR_ROI_ENABLED, Missing::False, newVal);
}

STDMETHODIMP CVKVStabilizeImpl::get_ROITop(LONG* pVal) { return GetNumber(VKVSTAB_ATTR_ROI_TOP, pVal); }

STDMETHODIMP CVKVStabilizeImpl::put_ROITop(LONG newVal) { return PutNumber(VKVSTAB_ATTR_ROI_TOP, newVal); }

STDMETHODIMP CVKVStabilizeImpl::get_ROILeft(LONG* pVal) { return GetNumber(VKVSTAB_ATTR_ROI_LEFT, pVal); }

STDMETHODIMP CVKVStabilizeImpl::put_ROILeft(LONG newVal) { return PutNumber(VKVSTAB_ATTR_ROI_LEFT, newVal); }

STDMETHODIMP CVKVStabilizeImpl::get_ROIBottom(LONG* pVal) { return GetNumber(VKVSTAB_ATTR_ROI_BOTTOM, pVal); }

STDMETHODIMP CVKVStabilizeImpl::put_ROIBottom(LONG newVal) {
  return PutNumber(VKVSTAB_ATTR_ROI_BOTTOM, newVal);
}

// Right and bottom edge are one item, so putting one changes the other (kept for compatibility).
STDMETHODIMP CVKVStabilizeImpl::get_ROIRight(LONG* pVal) { return get_ROIBottom(pVal); }

STDMETHODIMP CVKVStabilizeImpl::put_ROIRight(LONG newVal) { return put_ROIBottom(newVal); }

STDMETHODIMP CVKVStabilizeImpl::get_GlobalEstimationCoefficients(vkvstab_GlobalEstimationCoefficients* pVal) {
  return GetNumber(VKVSTAB_ATTR_ESTIMATION_COEFFICIENTS, pVal);
}

STDMETHODIMP CVKVStabilizeImpl::put_GlobalEstimationCoefficients(
    vkvstab_GlobalEstimationCoefficients newVal) {
  return PutNumber(VKVSTAB_ATTR_ESTIMATION_COEFFICIENTS, newVal);
}

STDMETHODIMP CVKVStabilizeImpl::get_GlobalEstimationQuality(vkvstab_GlobalEstimationQuality* pVal) {
  return GetNumber(VKVSTAB_ATTR_ESTIMATION_QUALITY, pVal);
}

STDMETHODIMP CVKVStabilizeImpl::put_GlobalEstimationQuality(vkvstab_GlobalEstimationQuality newVal) {
  return PutNumber(VKVSTAB_ATTR_ESTIMATION_QUALITY, newVal);
}

STDMETHODIMP CVKVStabilizeImpl::get_PathSmoothingLevel(vkvstab_PathSmoothingLevel* pVal) {
  return GetNumber(VKVSTAB_ATTR_PATH_SMOOTHING_LEVEL, pVal);
}

STDMETHODIMP CVKVStabilizeImpl::put_PathSmoothingLevel(vkvstab_PathSmoothingLevel newVal) {
  return PutNumber(VKVSTAB_ATTR_PATH_SMOOTHING_LEVEL, newVal);
}

STDMETHODIMP CVKVStabilizeImpl::get_BkFillColor(OLE_COLOR* pVal) {
  return GetNumber(VKVSTAB_ATTR_BK_FILL_COLOR, pVal);
}

STDMETHODIMP CVKVStabilizeImpl::put_BkFillColor(OLE_COLOR newVal) {
  const CAutoLock lock(m_settingsLock);
  COLORREF translated = 0;
  const HRESULT hr = OleTranslateColor(newVal, nullptr, &translated);
  return FAILED(hr) ? hr : PutNumber(VKVSTAB_ATTR_BK_FILL_COLOR, translated);
}

STDMETHODIMP CVKVStabilizeImpl::get_CropEnabled(VARIANT_BOOL* pVal) {
  return GetFlag(VKVSTAB_ATTR_CROP_ENABLED, Missing::False, pVal);
}

STDMETHODIMP CVKVStabilizeImpl::put_CropEnabled(VARIANT_BOOL newVal) {
  return PutFlag(VKVSTAB_ATTR_CROP_ENABLED, Missing::False, newVal);
}

STDMETHODIMP CVKVStabilizeImpl::get_LeftRightCropMargin(LONG* pVal) {
  return GetNumber(VKVSTAB_ATTR_LEFT_RIGHT_CROP_MARGIN, pVal);
}

STDMETHODIMP CVKVStabilizeImpl::put_LeftRightCropMargin(LONG newVal) {
  return PutNumber(VKVSTAB_ATTR_LEFT_RIGHT_CROP_MARGIN, newVal);
}

STDMETHODIMP CVKVStabilizeImpl::get_TopBottomCropMargin(LONG* pVal) {
  return GetNumber(VKVSTAB_ATTR_TOP_BOTTOM_CROP_MARGIN, pVal);
}

STDMETHODIMP CVKVStabilizeImpl::put_TopBottomCropMargin(LONG newVal) {
  return PutNumber(VKVSTAB_ATTR_TOP_BOTTOM_CROP_MARGIN, newVal);
}

STDMETHODIMP CVKVStabilizeImpl::get_InterpolationType(vkvstab_InterpolationType* pVal) {
  return GetNumber(VKVSTAB_ATTR_INTERPOLATION_TYPE, pVal);
}

STDMETHODIMP CVKVStabilizeImpl::put_InterpolationType(vkvstab_InterpolationType newVal) {
  return PutNumber(VKVSTAB_ATTR_INTERPOLATION_TYPE, newVal);
}

STDMETHODIMP CVKVStabilizeImpl::get_ClippingOption(vkvstab_enumClippingOption* pVal) {
  return GetNumber(VKVSTAB_ATTR_CLIPPING_OPTION, pVal);
}

STDMETHODIMP CVKVStabilizeImpl::put_ClippingOption(vkvstab_enumClippingOption newVal) {
  return PutNumber(VKVSTAB_ATTR_CLIPPING_OPTION, newVal);
}

STDMETHODIMP CVKVStabilizeImpl::get_UseAdvancedEngine(VARIANT_BOOL* pVal) {
  return GetFlag(VKVSTAB_ATTR_USE_ADVANCED_ENGINE, Missing::False, pVal);
}

// A missing item counts as true here and as false in the getter. So putting true does not create it (kept for
// compatibility).
STDMETHODIMP CVKVStabilizeImpl::put_UseAdvancedEngine(VARIANT_BOOL newVal) {
  return PutFlag(VKVSTAB_ATTR_USE_ADVANCED_ENGINE, Missing::True, newVal);
}

STDMETHODIMP CVKVStabilizeImpl::get_AdvancedEngineAvailable(VARIANT_BOOL* pVal) {
  return GetFlag(VKVSTAB_ATTR_ADVANCED_ENGINE_AVAILABLE, Missing::False, pVal);
}
