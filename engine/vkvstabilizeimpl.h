#pragma once

#include <windows.h>

#include <atomic>
#include <memory>
#include <mfapi.h>
#include <wrl/client.h>

#include "automation/vkvstabilize.h"
#include "common/baseobject.h"
#include "common/criticalsection.h"
#include "common/refcounted.h"
#include "engine/myattributes.h"
#include "engine/stabilizersettings.h"
#include "kernel/stabilizevideokernel.h"

/// Notifications from the facade to its transform.
class VKVStabilizeImplCB {
 public:
  /// The size of the output frames may have changed. Called with the settings store locked, on the thread
  /// that changed the settings; the result is ignored.
  virtual HRESULT STDMETHODCALLTYPE OutputChanged() = 0;

 protected:
  ~VKVStabilizeImplCB() = default;
};

/// The engine facade: owns the settings store and the kernel, serves the automation interface, keeps the
/// settings in the registry, and decides before each frame whether the kernel must be set up anew.
///
/// Any thread may call any method. A thread takes locks in the order settings, store, change, and holds no
/// other lock together with the kernel lock. Clients may keep the facade longer than its transform, whose
/// destructor calls `DetachCallback`.
class CVKVStabilizeImpl final : private MediaFoundationSamples::BaseObject,
                                public CRefCounted<IVKFVStabilize>,
                                private MyAttributesCallback {
 public:
  /// `callback` may be null and is not owned. `createAttributes` makes the store that `MyAttributes` wraps.
  explicit CVKVStabilizeImpl(VKVStabilizeImplCB* callback,
                             MyAttributes::CreateFunction createAttributes = MFCreateAttributes);
  CVKVStabilizeImpl(const CVKVStabilizeImpl&) = delete;
  CVKVStabilizeImpl& operator=(const CVKVStabilizeImpl&) = delete;

  /// The transform's callback is not called after this returns.
  void DetachCallback();

  /// The settings store; null when it could not be created. Clients may keep it longer than the facade.
  IMFAttributes* Attributes() const { return Store(); }

  /// Reads all settings at one moment. `version` receives the number of the last change that they include.
  StabilizerSettings TakeSnapshot(unsigned* version);

  /// Stabilizes the padded bottom-up frame at `pixels` in place. `noOutput` becomes true while the kernel's
  /// delay line fills. False, with `noOutput` true, when the kernel could not be set up or ran out of memory.
  bool ProcessFrame(std::uint8_t* pixels, std::uint32_t width, std::uint32_t height, bool repeatPrevious,
                    bool* noOutput);

  /// A number that changes whenever the kernel is set up anew. Delayed frames are lost then.
  unsigned StreamNumber();

  /// Releases the kernel's frames; the next frame sets the kernel up anew. Always true.
  bool Reset();

  /// Replaces an input frame's size by the stabilizer's output size, whether stabilization is enabled or not.
  void GetOutputSize(SIZE& sz);

  /// Whether stabilization is enabled and makes output frames smaller than input frames.
  bool ChangesFrameSize();

  bool IsAdvancedEngineActive();
  void SetAdvancedEngineAvailable(bool available);

  bool IsReconnectPending();
  void ClearReconnectPending();

  // IUnknown. QueryInterface knows IDispatch and IVKFVStabilize only.
  STDMETHODIMP QueryInterface(REFIID iid, void** object) override;

  // IDispatch, implemented by the module's type library
  STDMETHODIMP GetTypeInfoCount(UINT* count) override;
  STDMETHODIMP GetTypeInfo(UINT index, LCID locale, ITypeInfo** typeInfo) override;
  STDMETHODIMP GetIDsOfNames(REFIID iid, LPOLESTR* names, UINT count, LCID locale, DISPID* ids) override;
  STDMETHODIMP Invoke(DISPID id, REFIID iid, LCID locale, WORD flags, DISPPARAMS* parameters, VARIANT* result,
                      EXCEPINFO* exception, UINT* badArgument) override;

  // IVKFVStabilize1
  STDMETHODIMP get_Enabled(VARIANT_BOOL* pVal) override;
  STDMETHODIMP put_Enabled(VARIANT_BOOL newVal) override;
  STDMETHODIMP get_AutoReconnect(VARIANT_BOOL* pVal) override;
  STDMETHODIMP put_AutoReconnect(VARIANT_BOOL newVal) override;
  STDMETHODIMP get_ROIEnabled(VARIANT_BOOL* pVal) override;
  STDMETHODIMP put_ROIEnabled(VARIANT_BOOL newVal) override;
  STDMETHODIMP get_ROITop(LONG* pVal) override;
  STDMETHODIMP put_ROITop(LONG newVal) override;
  STDMETHODIMP get_ROILeft(LONG* pVal) override;
  STDMETHODIMP put_ROILeft(LONG newVal) override;
  STDMETHODIMP get_ROIBottom(LONG* pVal) override;
  STDMETHODIMP put_ROIBottom(LONG newVal) override;
  STDMETHODIMP get_ROIRight(LONG* pVal) override;
  STDMETHODIMP put_ROIRight(LONG newVal) override;
  STDMETHODIMP get_GlobalEstimationCoefficients(vkvstab_GlobalEstimationCoefficients* pVal) override;
  STDMETHODIMP put_GlobalEstimationCoefficients(vkvstab_GlobalEstimationCoefficients newVal) override;
  STDMETHODIMP get_GlobalEstimationQuality(vkvstab_GlobalEstimationQuality* pVal) override;
  STDMETHODIMP put_GlobalEstimationQuality(vkvstab_GlobalEstimationQuality newVal) override;
  STDMETHODIMP get_PathSmoothingLevel(vkvstab_PathSmoothingLevel* pVal) override;
  STDMETHODIMP put_PathSmoothingLevel(vkvstab_PathSmoothingLevel newVal) override;
  STDMETHODIMP get_BkFillColor(OLE_COLOR* pVal) override;
  STDMETHODIMP put_BkFillColor(OLE_COLOR newVal) override;
  STDMETHODIMP get_CropEnabled(VARIANT_BOOL* pVal) override;
  STDMETHODIMP put_CropEnabled(VARIANT_BOOL newVal) override;
  STDMETHODIMP get_LeftRightCropMargin(LONG* pVal) override;
  STDMETHODIMP put_LeftRightCropMargin(LONG newVal) override;
  STDMETHODIMP get_TopBottomCropMargin(LONG* pVal) override;
  STDMETHODIMP put_TopBottomCropMargin(LONG newVal) override;
  STDMETHODIMP get_InterpolationType(vkvstab_InterpolationType* pVal) override;
  STDMETHODIMP put_InterpolationType(vkvstab_InterpolationType newVal) override;
  STDMETHODIMP get_ClippingOption(vkvstab_enumClippingOption* pVal) override;
  STDMETHODIMP put_ClippingOption(vkvstab_enumClippingOption newVal) override;
  STDMETHODIMP ResetToDefaults() override;
  STDMETHODIMP LoadAttributes() override;
  STDMETHODIMP SaveAttributes() override;

  // IVKFVStabilize
  STDMETHODIMP get_UseAdvancedEngine(VARIANT_BOOL* pVal) override;
  STDMETHODIMP put_UseAdvancedEngine(VARIANT_BOOL newVal) override;
  STDMETHODIMP get_AdvancedEngineAvailable(VARIANT_BOOL* pVal) override;

 private:
  ~CVKVStabilizeImpl() override;

  /// What a missing boolean item counts as.
  enum class Missing { False, True };

  // MyAttributesCallback
  HRESULT AttributesChanged() override;

  MyAttributes* Store() const { return m_pAttributes; }
  /// Creates the store with the defaults, unless there is one.
  HRESULT CreateStore();
  static HRESULT WriteDefaults(IMFAttributes* store);
  static bool ReadFlag(IMFAttributes* store, const GUID& key, Missing missing);
  bool ReadFlag(const GUID& key, Missing missing) const { return ReadFlag(Store(), key, missing); }
  std::int32_t ReadNumber(const GUID& key) const;
  HRESULT GetFlag(const GUID& key, Missing missing, VARIANT_BOOL* pVal);
  HRESULT PutFlag(const GUID& key, Missing missing, VARIANT_BOOL newVal);
  void WriteFlagIfDifferent(const GUID& key, Missing missing, bool value);
  template <class Number>
  HRESULT GetNumber(const GUID& key, Number* pVal);
  template <class Number>
  HRESULT PutNumber(const GUID& key, Number newVal);

  /// Reads all settings but the background colour at one moment. Callbacks use it: they run with the store
  /// locked, so it must not take the settings lock.
  StabilizerSettings ReadSettings() const;

  void InitializeKernel(FrameSize frame);
  bool IsKernelUpToDate();
  void MarkSettingsChanged();
  unsigned SettingsVersion();
  void ClearSettingsChanged(unsigned version);
  void NotifyOutputChanged();
  HRESULT LoadTypeInfo(ITypeInfo** typeInfo);

  const MyAttributes::CreateFunction m_createAttributes;
  CCriticalSection m_settingsLock;
  Microsoft::WRL::ComPtr<ITypeInfo> m_pTypeInfo;  // guarded by the settings lock
  CCriticalSection m_creationLock;
  Microsoft::WRL::ComPtr<MyAttributes> m_pStore;       // set once, under the creation lock
  std::atomic<MyAttributes*> m_pAttributes = nullptr;  // the same store; set after its defaults are written
  CCriticalSection m_changeLock;
  // Guarded by the change lock:
  bool m_reconnectPending = false;  // kept for compatibility; nothing sets it
  bool m_settingsChanged = false;
  unsigned m_settingsVersion = 0;
  std::atomic<VKVStabilizeImplCB*> m_pCallback;  // called with the store locked
  std::unique_ptr<CStabilizeVideoKernel> m_pStabilizeVideoKernel;
  unsigned m_streamNumber = 0;  // guarded by the kernel lock
  CCriticalSection m_kernelLock;
};
