#include "module/samples.h"

#include <algorithm>
#include <gtest/gtest.h>

using Microsoft::WRL::ComPtr;

ComPtr<IMFMediaType> VideoType(std::int32_t width, std::int32_t height, const GUID& subtype) {
  ComPtr<IMFMediaType> type;
  EXPECT_EQ(MFCreateMediaType(&type), S_OK);
  type->SetGUID(MF_MT_MAJOR_TYPE, MFMediaType_Video);
  type->SetGUID(MF_MT_SUBTYPE, subtype);
  MFSetAttributeSize(type.Get(), MF_MT_FRAME_SIZE, static_cast<UINT32>(width), static_cast<UINT32>(height));
  return type;
}

ComPtr<IMFSample> SampleOver(IMFMediaBuffer* buffer) {
  ComPtr<IMFSample> sample;
  EXPECT_EQ(MFCreateSample(&sample), S_OK);
  EXPECT_EQ(sample->AddBuffer(buffer), S_OK);
  return sample;
}

ComPtr<IMFSample> Sample(const Bytes& content) {
  ComPtr<IMFMediaBuffer> buffer;
  EXPECT_EQ(MFCreateMemoryBuffer(static_cast<DWORD>(content.size()), &buffer), S_OK);
  BYTE* pixels = nullptr;
  EXPECT_EQ(buffer->Lock(&pixels, nullptr, nullptr), S_OK);
  std::copy(content.begin(), content.end(), pixels);
  buffer->Unlock();
  buffer->SetCurrentLength(static_cast<DWORD>(content.size()));
  return SampleOver(buffer.Get());
}

Bytes Content(IMFSample* sample) {
  ComPtr<IMFMediaBuffer> buffer;
  EXPECT_EQ(sample->ConvertToContiguousBuffer(&buffer), S_OK);
  BYTE* pixels = nullptr;
  DWORD length = 0;
  EXPECT_EQ(buffer->Lock(&pixels, nullptr, &length), S_OK);
  Bytes content(pixels, pixels + length);
  buffer->Unlock();
  return content;
}
