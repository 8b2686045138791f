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

/// What the facade tells its transform.
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
/// Any thread may call any method. Locks are taken in the order settings, store, change; the kernel lock is
/// never held together with another. Clients may keep the object longer than its transform, which calls
/// `DetachCallback` at its end.
class CVKVStabilizeImpl final : private MediaFoundationSamples::BaseObject,
                                public CRefCounted<IVKFVStabilize>,
                                private MyAttributesCallback {
 public:
  /// `callback` may be null and is not owned. `createAttributes` makes the platform's store.
  explicit CVKVStabilizeImpl(VKVStabilizeImplCB* callback,
                             MyAttributes::CreateFunction createAttributes = MFCreateAttributes);
  CVKVStabilizeImpl(const CVKVStabilizeImpl&) = delete;
  CVKVStabilizeImpl& operator=(const CVKVStabilizeImpl&) = delete;

  /// Once this returns, the transform's callback is not called any more.
  void DetachCallback();

  /// The settings as attributes; null when they could not be created. Clients may keep them longer than the
  /// facade.
  IMFAttributes* Attributes() const { return Store(); }

  /// All settings of one moment. `version` receives the number of the last change that they include.
  StabilizerSettings TakeSnapshot(unsigned* version);

  /// Stabilizes the padded bottom-up frame at `pixels` in place. `noOutput` becomes true while the kernel's
  /// delay line fills. It becomes true, and false is returned, when there is no kernel to process the frame.
  bool ProcessFrame(std::uint8_t* pixels, std::uint32_t width, std::uint32_t height, bool repeatPrevious,
                    bool* noOutput);

  /// Changes whenever the kernel is set up anew and so begins a new stream.
  unsigned StreamNumber();

  /// Forgets the stream; the next frame sets the kernel up anew.
  bool Reset();

  /// Replaces an input frame's size by the output frame's.
  void GetOutputSize(SIZE& sz);

  /// Whether output frames are smaller than input frames.
  bool ChangesFrameSize();

  bool IsAdvancedEngineActive();
  void SetAdvancedEngineAvailable(bool available);

  bool IsReconnectPending();
  void ClearReconnectPending();

  // IUnknown; answers for IDispatch and IVKFVStabilize only.
  STDMETHODIMP QueryInterface(REFIID iid, void** object) override;

  // IDispatch, from the type library in this module
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

  /// The value of a boolean item that is missing.
  enum class Missing { False, True };

  // MyAttributesCallback
  HRESULT AttributesChanged() override;

  MyAttributes* Store() const { return m_pAttributes; }
  /// Makes the store with its defaults, if there is none yet.
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

  /// All settings of one moment but the background. Takes no settings lock, which would come before the
  /// store's in a callback.
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
  Microsoft::WRL::ComPtr<MyAttributes> m_pStore;       // guarded by the creation lock
  std::atomic<MyAttributes*> m_pAttributes = nullptr;  // the same, for readers; set when it is complete
  CCriticalSection m_changeLock;
  // Guarded by the change lock:
  bool m_reconnectPending = false;  // kept for compatibility, never true
  bool m_settingsChanged = false;
  unsigned m_settingsVersion = 0;
  std::atomic<VKVStabilizeImplCB*> m_pCallback;  // called with the store locked
  std::unique_ptr<CStabilizeVideoKernel> m_pStabilizeVideoKernel;
  unsigned m_streamNumber = 0;  // guarded by the kernel lock
  CCriticalSection m_kernelLock;
};
