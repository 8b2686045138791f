#include "mft/mediatype.h"

#include <algorithm>
#include <amvideo.h>
#include <cstdlib>
#include <dvdmedia.h>
#include <iterator>
#include <mfapi.h>
#include <mferror.h>
#include <strmif.h>
#include <uuids.h>
#include <wrl/client.h>

#include "common/debugreport.h"

using Microsoft::WRL::ComPtr;

namespace {

const GUID* const kSubtypes[] = {&MFVideoFormat_RGB24};

/// DirectShow's description of a media type.
class AmMediaType {
 public:
  explicit AmMediaType(IMFMediaType* type)
      : m_isValid(SUCCEEDED(MFInitAMMediaTypeFromMFMediaType(type, GUID{}, &m_type))) {}
  ~AmMediaType() {
    if (!m_isValid) return;
    CoTaskMemFree(m_type.pbFormat);
    if (m_type.pUnk) m_type.pUnk->Release();
  }
  AmMediaType(const AmMediaType&) = delete;
  AmMediaType& operator=(const AmMediaType&) = delete;

  /// Null when the description is missing or its format block is too short.
  const BITMAPINFOHEADER* BitmapHeader() const {
    if (!m_isValid || !m_type.pbFormat) return nullptr;
    if (m_type.formattype == FORMAT_VideoInfo2)
      return m_type.cbFormat >= sizeof(VIDEOINFOHEADER2)
                 ? &reinterpret_cast<const VIDEOINFOHEADER2*>(m_type.pbFormat)->bmiHeader
                 : nullptr;
    return m_type.cbFormat >= sizeof(VIDEOINFOHEADER)
               ? &reinterpret_cast<const VIDEOINFOHEADER*>(m_type.pbFormat)->bmiHeader
               : nullptr;
  }

 private:
  AM_MEDIA_TYPE m_type = {};
  bool m_isValid;
};

}  // namespace

std::optional<SIZE> ReadFrameSize(IMFMediaType* type) {
  UINT64 size = 0;
  if (FAILED(type->GetUINT64(MF_MT_FRAME_SIZE, &size))) return std::nullopt;
  return SIZE{static_cast<LONG>(size >> 32), static_cast<LONG>(size & 0xFFFFFFFF)};
}

HRESULT WriteFrameSize(IMFMediaType* type, SIZE size) {
  return type->SetUINT64(MF_MT_FRAME_SIZE, static_cast<UINT64>(static_cast<UINT32>(size.cx)) << 32 |
                                               static_cast<UINT32>(size.cy));
}

HRESULT MakeAvailableType(DWORD index, IMFMediaType** type) {
  if (index >= std::size(kSubtypes)) return MF_E_NO_MORE_TYPES;
  ComPtr<IMFMediaType> partial;
  HRESULT hr = MFCreateMediaType(&partial);
  if (SUCCEEDED(hr)) hr = partial->SetGUID(MF_MT_MAJOR_TYPE, MFMediaType_Video);
  if (SUCCEEDED(hr)) hr = partial->SetGUID(MF_MT_SUBTYPE, *kSubtypes[index]);
  return SUCCEEDED(hr) ? partial.CopyTo(type) : hr;
}

HRESULT CheckVideoType(IMFMediaType* type) {
  DebugAssert(type != nullptr, "pmt != NULL", "mediatype");
  if (!type) return MF_E_INVALIDMEDIATYPE;
  GUID guid = {};
  HRESULT hr = type->GetGUID(MF_MT_MAJOR_TYPE, &guid);
  if (FAILED(hr)) return hr;
  if (guid != MFMediaType_Video) return MF_E_INVALIDMEDIATYPE;
  hr = type->GetGUID(MF_MT_SUBTYPE, &guid);
  if (FAILED(hr)) return hr;
  for (const GUID* const subtype : kSubtypes)
    if (guid == *subtype) return S_OK;
  return MF_E_INVALIDMEDIATYPE;
}

HRESULT CopyMediaType(IMFMediaType* source, IMFMediaType** copy) {
  ComPtr<IMFMediaType> type;
  HRESULT hr = MFCreateMediaType(&type);
  if (SUCCEEDED(hr)) hr = source->CopyAllItems(type.Get());
  return SUCCEEDED(hr) ? type.CopyTo(copy) : hr;
}

std::uint64_t ImageParameters::FrameBytes(std::uint32_t frameWidth, std::uint32_t frameHeight) const {
  // The bytes of a row always fit 64 bits, those of a frame may not.
  const std::uint64_t stride = (std::uint64_t{BitsImage} * frameWidth + 31) / 32 * 4;
  const std::uint64_t limit = UINT64_MAX / (frameHeight > 0 ? frameHeight : 1);
  return stride <= limit ? stride * frameHeight : UINT64_MAX;
}

std::uint32_t ImageParameters::SampleBytes(std::uint32_t frameWidth, std::uint32_t frameHeight) const {
  return static_cast<std::uint32_t>(std::min<std::uint64_t>(FrameBytes(frameWidth, frameHeight), UINT32_MAX));
}

void ImageParameters::Read(IMFMediaType* type) {
  width = height = BitsImage = 0;
  if (const std::optional<SIZE> size = ReadFrameSize(type)) {
    width = static_cast<std::uint32_t>(size->cx);
    height = static_cast<std::uint32_t>(std::llabs(size->cy));
  }
  const AmMediaType description(type);
  const BITMAPINFOHEADER* const header = description.BitmapHeader();
  if (!header) return;
  BitsImage = header->biBitCount;
  UINT32 declaredSize = 0;
  if (SUCCEEDED(type->GetUINT32(MF_MT_SAMPLE_SIZE, &declaredSize))) sampleSize = declaredSize;
  if (sampleSize == 0) sampleSize = header->biSizeImage;
  if (sampleSize == 0) sampleSize = SampleBytes(width, height);
}
