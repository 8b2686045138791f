#include "mft/mft_vstabilize.h"

#include <cstdlib>
#include <cstring>
#include <mfapi.h>
#include <mferror.h>

#include "common/comboundary.h"
#include "common/debugreport.h"

using Microsoft::WRL::ComPtr;

namespace {

constexpr char kFile[] = "mft_vstabilize";

// The platform's video DSP.
constexpr GUID kAdvancedEngineClass = {
    0x51571744, 0x7FE4, 0x4FF2, {0xA4, 0x98, 0x2D, 0xC3, 0x4F, 0xF7, 0x4F, 0x1B}};

// The result of `ProcessSample` while the kernel's delay line fills and no frame comes out.
constexpr HRESULT kNoFrameYet = S_FALSE;

/// Locks a sample's contiguous buffer while the object lives.
class SampleLock {
 public:
  explicit SampleLock(IMFSample* sample) {
    m_result = sample->ConvertToContiguousBuffer(&m_pBuffer);
    if (SUCCEEDED(m_result)) m_result = m_pBuffer->Lock(&m_pBytes, &m_capacity, &m_length);
    m_isLocked = SUCCEEDED(m_result);
  }
  ~SampleLock() {
    if (m_isLocked) m_pBuffer->Unlock();
  }
  SampleLock(const SampleLock&) = delete;
  SampleLock& operator=(const SampleLock&) = delete;

  HRESULT Result() const { return m_result; }
  BYTE* Bytes() const { return m_pBytes; }
  DWORD Capacity() const { return m_capacity; }
  DWORD Length() const { return m_length; }
  HRESULT SetLength(DWORD length) const { return m_pBuffer->SetCurrentLength(length); }

 private:
  HRESULT m_result;
  ComPtr<IMFMediaBuffer> m_pBuffer;
  BYTE* m_pBytes = nullptr;
  DWORD m_capacity = 0, m_length = 0;
  bool m_isLocked;
};

HRESULT AssertSucceeded(HRESULT hr) {
  DebugAssert(SUCCEEDED(hr), "FALSE", kFile);
  return hr;
}

/// The size with a positive height. A negative one marks a top-down picture.
SIZE UprightSize(const SIZE& size) { return {size.cx, static_cast<LONG>(std::llabs(size.cy))}; }

bool IsSameSize(const SIZE& a, const SIZE& b) { return a.cx == b.cx && a.cy == b.cy; }

}  // namespace

// Creation and identity

HRESULT CMFTVStabilize::CreateInstance(IUnknown* outer, REFIID iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (outer) return CLASS_E_NOAGGREGATION;
  return ComBoundary([&] {
    auto* const transform = new CMFTVStabilize;
    const HRESULT hr = transform->QueryInterface(iid, object);
    transform->Release();
    return hr;
  });
}

CMFTVStabilize::CMFTVStabilize() {
  *m_pFacade.GetAddressOf() = new CVKVStabilizeImpl(this);
  CoCreateInstance(kAdvancedEngineClass, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&m_pInnerTransform));
  m_pFacade->LoadAttributes();
  m_pFacade->SetAdvancedEngineAvailable(m_pInnerTransform != nullptr);
  if (!m_pInnerTransform) m_pFacade->put_UseAdvancedEngine(VARIANT_FALSE);
}

CMFTVStabilize::~CMFTVStabilize() {
  DebugAssert(m_nRefCount == 0, "m_nRefCount == 0", kFile);
  m_pFacade->DetachCallback();
}

STDMETHODIMP CMFTVStabilize::QueryInterface(REFIID iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (iid == __uuidof(IDispatch) || iid == __uuidof(IVKFVStabilize) || iid == __uuidof(IVKFVStabilize1))
    return m_pFacade->QueryInterface(iid, object);
  if (iid == __uuidof(IUnknown) || iid == __uuidof(IMFTransform))
    *object = static_cast<IMFTransform*>(this);
  else if (iid == __uuidof(ISpecifyPropertyPages))
    *object = static_cast<ISpecifyPropertyPages*>(this);
  else
    return E_NOINTERFACE;
  AddRef();
  return S_OK;
}

STDMETHODIMP CMFTVStabilize::GetPages(CAUUID* pages) {
  if (!pages) return E_POINTER;
  pages->cElems = 2;
  pages->pElems = static_cast<GUID*>(CoTaskMemAlloc(2 * sizeof(GUID)));
  if (!pages->pElems) return E_OUTOFMEMORY;
  pages->pElems[0] = CLSID_VKFVStabilizePropertyPage;
  pages->pElems[1] = CLSID_VKFVStabilizeAbout;
  return S_OK;
}

/// The advanced engine if it is chosen, otherwise null. Also null when saved settings choose it on a machine
/// that lacks it.
IMFTransform* CMFTVStabilize::ActiveInnerTransform() {
  return m_pFacade->IsAdvancedEngineActive() ? m_pInnerTransform.Get() : nullptr;
}

// Stream description

STDMETHODIMP CMFTVStabilize::GetStreamLimits(DWORD* inputMinimum, DWORD* inputMaximum, DWORD* outputMinimum,
                                             DWORD* outputMaximum) {
  if (IMFTransform* const inner = ActiveInnerTransform())
    return inner->GetStreamLimits(inputMinimum, inputMaximum, outputMinimum, outputMaximum);
  if (!inputMinimum || !inputMaximum || !outputMinimum || !outputMaximum) return E_POINTER;
  *inputMinimum = *inputMaximum = *outputMinimum = *outputMaximum = 1;
  return S_OK;
}

STDMETHODIMP CMFTVStabilize::GetStreamCount(DWORD* inputs, DWORD* outputs) {
  if (IMFTransform* const inner = ActiveInnerTransform()) return inner->GetStreamCount(inputs, outputs);
  if (!inputs || !outputs) return E_POINTER;
  *inputs = *outputs = 1;
  return S_OK;
}

STDMETHODIMP CMFTVStabilize::GetStreamIDs(DWORD inputSize, DWORD* inputIds, DWORD outputSize,
                                          DWORD* outputIds) {
  IMFTransform* const inner = ActiveInnerTransform();
  return inner ? inner->GetStreamIDs(inputSize, inputIds, outputSize, outputIds) : E_NOTIMPL;
}

STDMETHODIMP CMFTVStabilize::GetInputStreamInfo(DWORD stream, MFT_INPUT_STREAM_INFO* info) {
  if (IMFTransform* const inner = ActiveInnerTransform()) return inner->GetInputStreamInfo(stream, info);
  if (!info) return E_POINTER;
  const CAutoLock lock(m_lock);
  if (stream != 0) return MF_E_INVALIDSTREAMNUMBER;
  *info = {};
  info->dwFlags = MFT_INPUT_STREAM_WHOLE_SAMPLES | MFT_INPUT_STREAM_SINGLE_SAMPLE_PER_BUFFER;
  info->cbSize = m_pInputType ? m_image.sampleSize : 0;
  return S_OK;
}

STDMETHODIMP CMFTVStabilize::GetOutputStreamInfo(DWORD stream, MFT_OUTPUT_STREAM_INFO* info) {
  if (IMFTransform* const inner = ActiveInnerTransform()) return inner->GetOutputStreamInfo(stream, info);
  if (!info) return E_POINTER;
  const CAutoLock lock(m_lock);
  if (stream != 0) return MF_E_INVALIDSTREAMNUMBER;
  *info = {};
  info->dwFlags = MFT_OUTPUT_STREAM_WHOLE_SAMPLES | MFT_OUTPUT_STREAM_SINGLE_SAMPLE_PER_BUFFER |
                  MFT_OUTPUT_STREAM_FIXED_SAMPLE_SIZE;
  // The whole input frame is copied into this buffer first, even when the output is cropped.
  info->cbSize = m_pInputType ? m_image.SampleBytes(m_image.width, m_image.height) : 0;
  return S_OK;
}

STDMETHODIMP CMFTVStabilize::GetAttributes(IMFAttributes**) { return E_NOTIMPL; }

STDMETHODIMP CMFTVStabilize::GetInputStreamAttributes(DWORD stream, IMFAttributes** attributes) {
  IMFTransform* const inner = ActiveInnerTransform();
  return inner ? inner->GetInputStreamAttributes(stream, attributes) : E_NOTIMPL;
}

STDMETHODIMP CMFTVStabilize::GetOutputStreamAttributes(DWORD stream, IMFAttributes** attributes) {
  IMFTransform* const inner = ActiveInnerTransform();
  return inner ? inner->GetOutputStreamAttributes(stream, attributes) : E_NOTIMPL;
}

STDMETHODIMP CMFTVStabilize::DeleteInputStream(DWORD stream) {
  IMFTransform* const inner = ActiveInnerTransform();
  return inner ? inner->DeleteInputStream(stream) : E_NOTIMPL;
}

STDMETHODIMP CMFTVStabilize::AddInputStreams(DWORD count, DWORD* streams) {
  IMFTransform* const inner = ActiveInnerTransform();
  return inner ? inner->AddInputStreams(count, streams) : E_NOTIMPL;
}

STDMETHODIMP CMFTVStabilize::SetOutputBounds(LONGLONG lower, LONGLONG upper) {
  IMFTransform* const inner = ActiveInnerTransform();
  return inner ? inner->SetOutputBounds(lower, upper) : E_NOTIMPL;
}

STDMETHODIMP CMFTVStabilize::ProcessEvent(DWORD stream, IMFMediaEvent* event) {
  IMFTransform* const inner = ActiveInnerTransform();
  return inner ? inner->ProcessEvent(stream, event) : E_NOTIMPL;
}

STDMETHODIMP CMFTVStabilize::GetInputStatus(DWORD stream, DWORD* flags) {
  if (IMFTransform* const inner = ActiveInnerTransform()) return inner->GetInputStatus(stream, flags);
  if (!flags) return E_POINTER;
  const CAutoLock lock(m_lock);
  if (stream != 0) return MF_E_INVALIDSTREAMNUMBER;
  *flags = m_pSample ? 0 : MFT_INPUT_STATUS_ACCEPT_DATA;
  return S_OK;
}

STDMETHODIMP CMFTVStabilize::GetOutputStatus(DWORD* flags) {
  if (IMFTransform* const inner = ActiveInnerTransform()) return inner->GetOutputStatus(flags);
  if (!flags) return E_POINTER;
  const CAutoLock lock(m_lock);
  *flags = m_pSample ? MFT_OUTPUT_STATUS_SAMPLE_READY : 0;
  return S_OK;
}

// Media types

STDMETHODIMP CMFTVStabilize::GetInputAvailableType(DWORD stream, DWORD index, IMFMediaType** type) {
  if (IMFTransform* const inner = ActiveInnerTransform())
    return inner->GetInputAvailableType(stream, index, type);
  DebugTrace("GetInputAvailableType (stream = %d, type index = %d)\n", static_cast<int>(stream),
             static_cast<int>(index));
  if (!type) return E_INVALIDARG;
  *type = nullptr;
  const CAutoLock lock(m_lock);
  return stream != 0 ? MF_E_INVALIDSTREAMNUMBER : MakeAvailableType(index, type);
}

STDMETHODIMP CMFTVStabilize::GetOutputAvailableType(DWORD stream, DWORD index, IMFMediaType** type) {
  if (IMFTransform* const inner = ActiveInnerTransform())
    return inner->GetOutputAvailableType(stream, index, type);
  if (!type) return E_INVALIDARG;
  *type = nullptr;
  const CAutoLock lock(m_lock);
  if (stream != 0) return MF_E_INVALIDSTREAMNUMBER;
  if (!m_pInputType) return MF_E_TRANSFORM_TYPE_NOT_SET;
  return index == 0 ? ProposeOutputType(type) : MF_E_NO_MORE_TYPES;
}

STDMETHODIMP CMFTVStabilize::GetInputCurrentType(DWORD stream, IMFMediaType** type) {
  if (IMFTransform* const inner = ActiveInnerTransform()) return inner->GetInputCurrentType(stream, type);
  if (!type) return E_POINTER;
  *type = nullptr;
  const CAutoLock lock(m_lock);
  if (stream != 0) return MF_E_INVALIDSTREAMNUMBER;
  return m_pInputType ? CopyMediaType(m_pInputType.Get(), type) : MF_E_TRANSFORM_TYPE_NOT_SET;
}

STDMETHODIMP CMFTVStabilize::GetOutputCurrentType(DWORD stream, IMFMediaType** type) {
  if (IMFTransform* const inner = ActiveInnerTransform()) return inner->GetOutputCurrentType(stream, type);
  if (!type) return E_POINTER;
  *type = nullptr;
  const CAutoLock lock(m_lock);
  if (stream != 0) return MF_E_INVALIDSTREAMNUMBER;
  return m_pOutputType ? CopyMediaType(m_pOutputType.Get(), type) : MF_E_TRANSFORM_TYPE_NOT_SET;
}

STDMETHODIMP CMFTVStabilize::SetInputType(DWORD stream, IMFMediaType* type, DWORD flags) {
  if (IMFTransform* const inner = ActiveInnerTransform()) return inner->SetInputType(stream, type, flags);
  if (flags > MFT_SET_TYPE_TEST_ONLY) return E_INVALIDARG;
  const CAutoLock lock(m_lock);
  if (stream != 0) return MF_E_INVALIDSTREAMNUMBER;
  if (!type) {  // clears the type, even with MFT_SET_TYPE_TEST_ONLY
    m_pInputType.Reset();
    m_inputSize = SIZE{};
    return S_OK;
  }
  if (m_pSample) return MF_E_TRANSFORM_CANNOT_CHANGE_MEDIATYPE_WHILE_PROCESSING;
  const HRESULT hr = CheckVideoType(type);
  if (SUCCEEDED(hr) && flags != MFT_SET_TYPE_TEST_ONLY) CommitInputType(type);
  return hr;
}

STDMETHODIMP CMFTVStabilize::SetOutputType(DWORD stream, IMFMediaType* type, DWORD flags) {
  if (IMFTransform* const inner = ActiveInnerTransform()) return inner->SetOutputType(stream, type, flags);
  if (flags > MFT_SET_TYPE_TEST_ONLY) return E_INVALIDARG;
  const CAutoLock lock(m_lock);
  if (stream != 0) return MF_E_INVALIDSTREAMNUMBER;
  if (!type) {  // clears the type, even with MFT_SET_TYPE_TEST_ONLY
    m_pOutputType.Reset();
    return S_OK;
  }
  const unsigned formatChanges = m_formatChanges;
  // After a format change, ProcessOutput does not process the held sample before a new type is set.
  if (m_pSample && formatChanges == 0) return MF_E_TRANSFORM_CANNOT_CHANGE_MEDIATYPE_WHILE_PROCESSING;
  const HRESULT hr = CheckOutputType(type);
  if (SUCCEEDED(hr) && flags != MFT_SET_TYPE_TEST_ONLY) CommitOutputType(type, formatChanges);
  return hr;
}

HRESULT CMFTVStabilize::CheckOutputType(IMFMediaType* type) {
  if (!m_pInputType) return CheckVideoType(type);
  return SUCCEEDED(CheckTransform(m_pInputType.Get(), type)) ? S_OK : MF_E_INVALIDMEDIATYPE;
}

HRESULT CMFTVStabilize::CheckTransform(IMFMediaType* input, IMFMediaType* output) {
  DebugTrace("CVStabilize::CheckTransform");
  HRESULT hr = CheckVideoType(input);
  if (FAILED(hr)) return hr;
  GUID subtype = {};
  hr = input->GetGUID(MF_MT_SUBTYPE, &subtype);
  if (SUCCEEDED(hr)) hr = output->GetGUID(MF_MT_SUBTYPE, &subtype);
  if (FAILED(hr)) return hr;
  if (subtype != MFVideoFormat_RGB24) return E_FAIL;
  // The subtype implies video, so a missing major type is accepted, but a different one is not.
  GUID majorType = {};
  if (SUCCEEDED(output->GetGUID(MF_MT_MAJOR_TYPE, &majorType)) && majorType != MFMediaType_Video)
    return E_FAIL;

  std::optional<SIZE> expected = ReadFrameSize(input), proposed = ReadFrameSize(output);
  if (!expected || !proposed) return E_FAIL;
  if (m_pFacade->ChangesFrameSize()) {
    // The proposed type has a positive height, too: the sign only gives the order of the rows.
    expected = UprightSize(*expected);
    m_pFacade->GetOutputSize(*expected);
  }
  return IsSameSize(*expected, *proposed) ? S_OK : E_FAIL;
}

SIZE CMFTVStabilize::ImageSize() const {
  return {static_cast<LONG>(m_image.width), static_cast<LONG>(m_image.height)};
}

HRESULT CMFTVStabilize::ProposeOutputType(IMFMediaType** type) {
  ComPtr<IMFMediaType> proposed;
  const HRESULT hr = CopyMediaType(m_pInputType.Get(), &proposed);
  if (FAILED(hr)) return hr;
  // A host that asks for output types can handle a format change.
  m_pFacade->put_AutoReconnect(VARIANT_TRUE);
  if (m_pFacade->ChangesFrameSize()) {
    SIZE size = ImageSize();
    m_pFacade->GetOutputSize(size);
    WriteFrameSize(proposed.Get(), size);
    proposed->SetUINT32(MF_MT_FIXED_SIZE_SAMPLES, 1);
    proposed->SetUINT32(MF_MT_SAMPLE_SIZE, m_image.SampleBytes(static_cast<std::uint32_t>(size.cx),
                                                               static_cast<std::uint32_t>(size.cy)));
  }
  return proposed.CopyTo(type);
}

void CMFTVStabilize::CommitInputType(IMFMediaType* type) {
  m_pInputType = type;
  m_image.Read(type);
  m_inputSize = ReadFrameSize(type).value_or(SIZE{});
  m_pFacade->Reset();
}

void CMFTVStabilize::CommitOutputType(IMFMediaType* type, unsigned formatChanges) {
  m_pOutputType = type;
  if (formatChanges == 0) return;
  m_pFacade->ClearReconnectPending();
  // A change that another thread made after `formatChanges` was read stays pending.
  m_formatChanges.compare_exchange_strong(formatChanges, 0);
}

HRESULT CMFTVStabilize::OutputChanged() {
  if (!m_pFacade || !m_pFacade->ChangesFrameSize()) return S_OK;
  const SIZE input = m_inputSize;
  if (IsSameSize(input, {})) return S_OK;
  SIZE output = UprightSize(input);
  m_pFacade->GetOutputSize(output);
  if (!IsSameSize(output, input)) ++m_formatChanges;
  return S_OK;
}

// Streaming

void CMFTVStabilize::BeginStreaming() {
  if (m_streaming) return;
  m_streaming = true;
  if (m_pFacade->IsReconnectPending()) ++m_formatChanges;
  m_pFacade->Reset();
}

void CMFTVStabilize::EndStreaming() {
  if (!m_streaming) return;
  m_pFacade->Reset();
  m_streaming = false;
}

STDMETHODIMP CMFTVStabilize::ProcessMessage(MFT_MESSAGE_TYPE message, ULONG_PTR parameter) {
  if (IMFTransform* const inner = ActiveInnerTransform()) return inner->ProcessMessage(message, parameter);
  const CAutoLock lock(m_lock);
  switch (message) {
    case MFT_MESSAGE_COMMAND_FLUSH:
      m_pSample.Reset();
      m_streaming = false;
      return S_OK;
    case MFT_MESSAGE_SET_D3D_MANAGER:
      return E_NOTIMPL;
    case MFT_MESSAGE_NOTIFY_BEGIN_STREAMING:
    case MFT_MESSAGE_NOTIFY_START_OF_STREAM:
      BeginStreaming();
      return S_OK;
    case MFT_MESSAGE_NOTIFY_END_STREAMING:
    case MFT_MESSAGE_NOTIFY_END_OF_STREAM:
      EndStreaming();
      return S_OK;
    default:
      return S_OK;
  }
}

STDMETHODIMP CMFTVStabilize::ProcessInput(DWORD stream, IMFSample* sample, DWORD flags) {
  if (IMFTransform* const inner = ActiveInnerTransform()) return inner->ProcessInput(stream, sample, flags);
  if (!sample) return E_POINTER;
  if (flags != 0) return E_INVALIDARG;
  const CAutoLock lock(m_lock);
  if (stream != 0) return MF_E_INVALIDSTREAMNUMBER;
  if (!m_pInputType || !m_pOutputType || m_pSample) return MF_E_NOTACCEPTING;
  DWORD buffers = 0;
  const HRESULT hr = sample->GetBufferCount(&buffers);
  if (FAILED(hr)) return hr;
  if (buffers == 0) return E_FAIL;
  if (buffers > 1) return MF_E_SAMPLE_HAS_TOO_MANY_BUFFERS;
  BeginStreaming();
  m_pSample = sample;
  return S_OK;
}

STDMETHODIMP CMFTVStabilize::ProcessOutput(DWORD flags, DWORD count, MFT_OUTPUT_DATA_BUFFER* buffers,
                                           DWORD* status) {
  if (IMFTransform* const inner = ActiveInnerTransform())
    return inner->ProcessOutput(flags, count, buffers, status);
  if (flags != 0) return E_INVALIDARG;
  if (!buffers || !status) return E_POINTER;
  if (count != 1 || !buffers[0].pSample) return E_INVALIDARG;
  if (m_formatChanges != 0) {
    buffers[0].dwStatus |= MFT_OUTPUT_DATA_BUFFER_FORMAT_CHANGE;
    return MF_E_TRANSFORM_STREAM_CHANGE;
  }
  const CAutoLock lock(m_lock);
  if (!m_pSample) return MF_E_TRANSFORM_NEED_MORE_INPUT;
  // The held sample is released even if processing fails.
  const ComPtr<IMFSample> sample = std::move(m_pSample);
  const HRESULT hr = ComBoundary([&] { return ProcessSample(sample.Get(), buffers[0].pSample); });
  if (hr == kNoFrameYet) return MF_E_TRANSFORM_NEED_MORE_INPUT;
  buffers[0].dwStatus = 0;
  *status = 0;
  return hr;
}

HRESULT CMFTVStabilize::ProcessSample(IMFSample* input, IMFSample* output) {
  if (!input || !output) return E_POINTER;
  if (m_pFacade->IsReconnectPending()) {
    ++m_formatChanges;
    return S_OK;
  }
  const HRESULT hr = CopyImage(input, output);
  if (FAILED(AssertSucceeded(hr))) return hr;
  VARIANT_BOOL enabled = VARIANT_FALSE;
  if (SUCCEEDED(m_pFacade->get_Enabled(&enabled)) && enabled != VARIANT_FALSE)
    return Stabilize(input, output);
  PassTiming(input, output);
  m_pFacade->Reset();
  return S_OK;
}

HRESULT CMFTVStabilize::CopyImage(IMFSample* input, IMFSample* output) const {
  DebugAssert(m_image.BitsImage == 24, "BitsImage==24", kFile);
  const std::uint64_t bytes = m_image.FrameBytes();
  const SampleLock source(input), destination(output);
  if (FAILED(source.Result())) return source.Result();
  if (FAILED(destination.Result())) return destination.Result();
  if (source.Length() < bytes) return E_INVALIDARG;
  if (destination.Capacity() < bytes) return MF_E_BUFFERTOOSMALL;
  // The host may pass the same buffer as input and output, so the ranges may overlap.
  if (bytes > 0) std::memmove(destination.Bytes(), source.Bytes(), static_cast<std::size_t>(bytes));
  return destination.SetLength(static_cast<DWORD>(bytes));
}

HRESULT CMFTVStabilize::Stabilize(IMFSample* input, IMFSample* output) {
  bool frameTaken = false;
  bool noOutput = false;  // remains false when the kernel lets frames pass unchanged
  // Reserves the memory before the kernel takes the frame. If it took a frame without a timing record, all
  // later frames would get wrong timing.
  m_sampleAttributes.Reserve();
  const unsigned streamBefore = m_pFacade->StreamNumber();
  const HRESULT hr = StabilizeImage(output, &frameTaken, &noOutput);
  if (FAILED(AssertSucceeded(hr))) return hr;

  // A new number means that the kernel was set up anew, after a reset or a change of settings. It has dropped
  // its frames, so their timing records are dropped, too.
  if (m_pFacade->StreamNumber() != streamBefore) m_sampleAttributes.Clear();
  if (frameTaken) m_sampleAttributes.Append(CVRMFSampleAttributes::Of(input));
  if (noOutput) return kNoFrameYet;
  DebugAssert(!m_sampleAttributes.IsEmpty(), "FALSE", kFile);
  if (!m_sampleAttributes.IsEmpty()) m_sampleAttributes.TakeOldest().ApplyTo(output);
  return S_OK;
}

HRESULT CMFTVStabilize::StabilizeImage(IMFSample* sample, bool* frameTaken, bool* noOutput) {
  const SampleLock image(sample);
  if (FAILED(image.Result())) return image.Result();
  // The kernel works on 24-bit frames, whatever the type's format block says.
  const std::uint64_t needed = ImageParameters{.BitsImage = 24}.FrameBytes(m_image.width, m_image.height);
  if (image.Capacity() < needed) return MF_E_BUFFERTOOSMALL;
  *frameTaken = m_pFacade->ProcessFrame(image.Bytes(), m_image.width, m_image.height, false, noOutput);
  return S_OK;
}

void CMFTVStabilize::PassTiming(IMFSample* input, IMFSample* output) {
  CVRMFSampleAttributes timing = CVRMFSampleAttributes::Of(input);
  timing.cleanPointResult = E_FAIL;  // for compatibility, frames that pass unchanged do not get a clean point
  timing.ApplyTo(output);
}
