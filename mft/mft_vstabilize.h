#pragma once

#include <windows.h>

#include <atomic>
#include <mfidl.h>
#include <mftransform.h>
#include <ocidl.h>
#include <wrl/client.h>

#include "common/baseobject.h"
#include "common/criticalsection.h"
#include "common/refcounted.h"
#include "engine/vkvstabilizeimpl.h"
#include "mft/mediatype.h"
#include "mft/sampleattributes.h"

/// Class identifiers of the module.
inline constexpr GUID CLSID_VKFVStabilize = __uuidof(VKFVStabilize);
inline constexpr GUID CLSID_VKFVStabilizePropertyPage = __uuidof(VKFVStabilizePropertyPage);
inline constexpr GUID CLSID_VKFVStabilizeAbout = __uuidof(VKFVStabilizeAbout);

/// The stabilizer as a Media Foundation transform: one stream of 24-bit RGB video in and one out.
///
/// Any thread may call any method. A thread that takes both the main lock and locks of the facade takes the
/// main lock first. The facade calls `OutputChanged` with its own locks held, so `OutputChanged` must not
/// take the main lock and reads atomic members instead.
class CMFTVStabilize final : private MediaFoundationSamples::BaseObject,
                             public CRefCounted<IMFTransform, ISpecifyPropertyPages>,
                             private VKVStabilizeImplCB {
 public:
  /// Creates a transform, for the module's class table.
  static HRESULT CreateInstance(IUnknown* outer, REFIID iid, void** object);

  CMFTVStabilize(const CMFTVStabilize&) = delete;
  CMFTVStabilize& operator=(const CMFTVStabilize&) = delete;

  // IUnknown; the automation interfaces are the facade's.
  STDMETHODIMP QueryInterface(REFIID iid, void** object) override;

  // ISpecifyPropertyPages
  STDMETHODIMP GetPages(CAUUID* pages) override;

  // IMFTransform
  STDMETHODIMP GetStreamLimits(DWORD* inputMinimum, DWORD* inputMaximum, DWORD* outputMinimum,
                               DWORD* outputMaximum) override;
  STDMETHODIMP GetStreamCount(DWORD* inputs, DWORD* outputs) override;
  STDMETHODIMP GetStreamIDs(DWORD inputSize, DWORD* inputIds, DWORD outputSize, DWORD* outputIds) override;
  STDMETHODIMP GetInputStreamInfo(DWORD stream, MFT_INPUT_STREAM_INFO* info) override;
  STDMETHODIMP GetOutputStreamInfo(DWORD stream, MFT_OUTPUT_STREAM_INFO* info) override;
  STDMETHODIMP GetAttributes(IMFAttributes** attributes) override;
  STDMETHODIMP GetInputStreamAttributes(DWORD stream, IMFAttributes** attributes) override;
  STDMETHODIMP GetOutputStreamAttributes(DWORD stream, IMFAttributes** attributes) override;
  STDMETHODIMP DeleteInputStream(DWORD stream) override;
  STDMETHODIMP AddInputStreams(DWORD count, DWORD* streams) override;
  STDMETHODIMP GetInputAvailableType(DWORD stream, DWORD index, IMFMediaType** type) override;
  STDMETHODIMP GetOutputAvailableType(DWORD stream, DWORD index, IMFMediaType** type) override;
  STDMETHODIMP SetInputType(DWORD stream, IMFMediaType* type, DWORD flags) override;
  STDMETHODIMP SetOutputType(DWORD stream, IMFMediaType* type, DWORD flags) override;
  STDMETHODIMP GetInputCurrentType(DWORD stream, IMFMediaType** type) override;
  STDMETHODIMP GetOutputCurrentType(DWORD stream, IMFMediaType** type) override;
  STDMETHODIMP GetInputStatus(DWORD stream, DWORD* flags) override;
  STDMETHODIMP GetOutputStatus(DWORD* flags) override;
  STDMETHODIMP SetOutputBounds(LONGLONG lower, LONGLONG upper) override;
  STDMETHODIMP ProcessEvent(DWORD stream, IMFMediaEvent* event) override;
  STDMETHODIMP ProcessMessage(MFT_MESSAGE_TYPE message, ULONG_PTR parameter) override;
  STDMETHODIMP ProcessInput(DWORD stream, IMFSample* sample, DWORD flags) override;
  STDMETHODIMP ProcessOutput(DWORD flags, DWORD count, MFT_OUTPUT_DATA_BUFFER* buffers,
                             DWORD* status) override;

 private:
  /// Throws std::bad_alloc.
  CMFTVStabilize();
  ~CMFTVStabilize() override;

  // VKVStabilizeImplCB
  HRESULT STDMETHODCALLTYPE OutputChanged() override;

  IMFTransform* ActiveInnerTransform();
  void CommitInputType(IMFMediaType* type);
  void CommitOutputType(IMFMediaType* type, unsigned formatChanges);
  HRESULT ProposeOutputType(IMFMediaType** type);
  HRESULT CheckTransform(IMFMediaType* input, IMFMediaType* output);
  HRESULT CheckOutputType(IMFMediaType* type);
  SIZE ImageSize() const;

  void BeginStreaming();
  void EndStreaming();
  HRESULT ProcessSample(IMFSample* input, IMFSample* output);
  HRESULT CopyImage(IMFSample* input, IMFSample* output) const;
  HRESULT Stabilize(IMFSample* input, IMFSample* output);
  HRESULT StabilizeImage(IMFSample* sample, bool* frameTaken, bool* noOutput);
  void PassTiming(IMFSample* input, IMFSample* output);

  std::atomic<unsigned> m_formatChanges = 0;  // since the output type was set
  std::atomic<SIZE> m_inputSize = SIZE{};     // the input type's frame size; zero without one
  CCriticalSection m_lock;
  // Guarded by the main lock:
  Microsoft::WRL::ComPtr<IMFMediaType> m_pInputType, m_pOutputType;
  ImageParameters m_image;
  Microsoft::WRL::ComPtr<IMFSample> m_pSample;
  bool m_streaming = false;
  CSampleAttributesQueue m_sampleAttributes;
  // Fixed after construction:
  Microsoft::WRL::ComPtr<CVKVStabilizeImpl> m_pFacade;
  Microsoft::WRL::ComPtr<IMFTransform> m_pInnerTransform;
};
