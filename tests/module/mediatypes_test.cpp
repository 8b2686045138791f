#include <windows.h>

#include <cstring>
#include <dshow.h>
#include <dvdmedia.h>
#include <tuple>

#include "transformtest.h"

using Microsoft::WRL::ComPtr;

extern "C" decltype(&MFInitAMMediaTypeFromMFMediaType) __imp_MFInitAMMediaTypeFromMFMediaType;

namespace {

TEST_F(Transform, AnswersForItsInterfacesAndPassesTheFacades) {
  for (const IID& iid : {__uuidof(IUnknown), __uuidof(IMFTransform), __uuidof(ISpecifyPropertyPages),
                         __uuidof(IDispatch), __uuidof(IVKFVStabilize)}) {
    ComPtr<IUnknown> object, identity, same;
    EXPECT_EQ(m_pTransform->QueryInterface(iid, &object), S_OK);
    if (iid == __uuidof(IDispatch) || iid == __uuidof(IVKFVStabilize)) continue;
    EXPECT_EQ(object.As(&identity), S_OK);
    EXPECT_EQ(m_pTransform.As(&same), S_OK);
    EXPECT_EQ(identity.Get(), same.Get());
  }
  void* object = this;
  EXPECT_EQ(m_pTransform->QueryInterface(__uuidof(IVKFVStabilize1), &object), E_NOINTERFACE);
  EXPECT_EQ(object, nullptr);
  EXPECT_EQ(m_pTransform->QueryInterface(__uuidof(IUnknown), nullptr), E_POINTER);
  EXPECT_EQ(CMFTVStabilize::CreateInstance(m_pTransform.Get(), __uuidof(IUnknown), &object),
            CLASS_E_NOAGGREGATION);
  EXPECT_EQ(CMFTVStabilize::CreateInstance(nullptr, __uuidof(IUnknown), nullptr), E_POINTER);

  ComPtr<ISpecifyPropertyPages> pages;
  ASSERT_EQ(m_pTransform.As(&pages), S_OK);
  CAUUID list = {};
  EXPECT_EQ(pages->GetPages(nullptr), E_POINTER);
  ASSERT_EQ(pages->GetPages(&list), S_OK);
  ASSERT_EQ(list.cElems, 2U);
  EXPECT_TRUE(list.pElems[0] == CLSID_VKFVStabilizePropertyPage);
  EXPECT_TRUE(list.pElems[1] == CLSID_VKFVStabilizeAbout);
  CoTaskMemFree(list.pElems);
}

TEST_F(Transform, IsOutlivedByItsSettings) {
  const LONG others = MediaFoundationSamples::LiveObjects::Count();
  ComPtr<IMFTransform> transform;
  ComPtr<IVKFVStabilize> settings;
  ASSERT_EQ(CMFTVStabilize::CreateInstance(nullptr, IID_PPV_ARGS(&transform)), S_OK);
  ASSERT_EQ(transform.As(&settings), S_OK);
  ASSERT_EQ(transform->SetInputType(0, VideoType(kWidth, kHeight).Get(), 0), S_OK);
  EXPECT_EQ(transform.Reset(), 0U);
  EXPECT_EQ(MediaFoundationSamples::LiveObjects::Count(), others + 2) << "the settings and their store";
  settings->put_LeftRightCropMargin(4);
  settings->put_ClippingOption(vkvstab_CLIPPINGOPTIONS_CROP);
  EXPECT_EQ(settings->put_CropEnabled(VARIANT_TRUE), S_OK);
}

TEST_F(Transform, DescribesItsStreams) {
  DWORD a = 9, b = 9, c = 9, d = 9;
  EXPECT_EQ(m_pTransform->GetStreamLimits(&a, &b, &c, &d), S_OK);
  EXPECT_EQ(std::tuple(a, b, c, d), std::tuple(1U, 1U, 1U, 1U));
  EXPECT_EQ(m_pTransform->GetStreamCount(&a, &b), S_OK);
  EXPECT_EQ(std::tuple(a, b), std::tuple(1U, 1U));
  for (DWORD* const missing : {&a, &b, &c, &d}) {
    const auto unless = [missing](DWORD* pointer) { return pointer == missing ? nullptr : pointer; };
    EXPECT_EQ(m_pTransform->GetStreamLimits(unless(&a), unless(&b), unless(&c), unless(&d)), E_POINTER);
    EXPECT_EQ(m_pTransform->GetStreamCount(unless(&a), unless(&b)),
              missing == &a || missing == &b ? E_POINTER : S_OK);
  }
  MFT_INPUT_STREAM_INFO input = {};
  MFT_OUTPUT_STREAM_INFO output = {};
  EXPECT_EQ(m_pTransform->GetInputStreamInfo(0, &input), S_OK);
  EXPECT_EQ(input.dwFlags, 3U);
  EXPECT_EQ(input.cbSize, 0U);
  SetTypes(101, 30);
  EXPECT_EQ(m_pTransform->GetInputStreamInfo(0, &input), S_OK);
  EXPECT_EQ(m_pTransform->GetOutputStreamInfo(0, &output), S_OK);
  EXPECT_EQ(input.cbSize, 304U * 30);
  EXPECT_EQ(output.cbSize, 304U * 30);
  EXPECT_EQ(output.dwFlags, 7U);
  EXPECT_EQ(m_pTransform->SetInputType(0, nullptr, 0), S_OK);
  EXPECT_EQ(m_pTransform->GetInputStreamInfo(0, &input), S_OK);
  EXPECT_EQ(m_pTransform->GetOutputStreamInfo(0, &output), S_OK);
  EXPECT_EQ(std::tuple(input.cbSize, output.cbSize), std::tuple(0U, 0U));

  ComPtr<IMFAttributes> attributes;
  EXPECT_EQ(m_pTransform->GetAttributes(&attributes), E_NOTIMPL);
  EXPECT_EQ(m_pTransform->GetInputStreamAttributes(0, &attributes), E_NOTIMPL);
  EXPECT_EQ(m_pTransform->GetOutputStreamAttributes(0, &attributes), E_NOTIMPL);
  EXPECT_EQ(m_pTransform->GetStreamIDs(0, nullptr, 0, nullptr), E_NOTIMPL);
  EXPECT_EQ(m_pTransform->AddInputStreams(0, nullptr), E_NOTIMPL);
  EXPECT_EQ(m_pTransform->DeleteInputStream(0), E_NOTIMPL);
  EXPECT_EQ(m_pTransform->SetOutputBounds(0, 0), E_NOTIMPL);
  EXPECT_EQ(m_pTransform->ProcessEvent(0, nullptr), E_NOTIMPL);
}

TEST_F(Transform, RefusesWrongStreamsAndMissingPointers) {
  MFT_INPUT_STREAM_INFO input = {};
  MFT_OUTPUT_STREAM_INFO output = {};
  DWORD flags = 0;
  ComPtr<IMFMediaType> type;
  for (const HRESULT hr :
       {m_pTransform->GetInputStreamInfo(1, &input), m_pTransform->GetOutputStreamInfo(2, &output),
        m_pTransform->GetInputStatus(1, &flags), m_pTransform->GetInputAvailableType(1, 0, &type),
        m_pTransform->GetOutputAvailableType(1, 0, &type), m_pTransform->GetInputCurrentType(1, &type),
        m_pTransform->GetOutputCurrentType(1, &type), m_pTransform->SetInputType(7, nullptr, 0),
        m_pTransform->SetOutputType(7, nullptr, 1)})
    EXPECT_EQ(hr, MF_E_INVALIDSTREAMNUMBER);
  for (const HRESULT hr :
       {m_pTransform->GetInputStreamInfo(1, nullptr), m_pTransform->GetOutputStreamInfo(1, nullptr),
        m_pTransform->GetInputStatus(1, nullptr), m_pTransform->GetOutputStatus(nullptr),
        m_pTransform->GetInputCurrentType(1, nullptr), m_pTransform->GetOutputCurrentType(1, nullptr)})
    EXPECT_EQ(hr, E_POINTER) << "before everything else";
  m_traces.clear();
  for (const HRESULT hr :
       {m_pTransform->GetInputAvailableType(3, 4, nullptr),
        m_pTransform->GetOutputAvailableType(3, 4, nullptr), m_pTransform->SetInputType(7, nullptr, 2),
        m_pTransform->SetOutputType(7, nullptr, 2)})
    EXPECT_EQ(hr, E_INVALIDARG) << "before everything else";
  EXPECT_EQ(m_traces, std::vector<std::string>{"GetInputAvailableType (stream = 3, type index = 4)\n"});
  m_traces = {};
  for (const auto get : {&IMFTransform::GetInputCurrentType, &IMFTransform::GetOutputCurrentType}) {
    auto* handedOut = std::bit_cast<IMFMediaType*>(this);
    EXPECT_EQ((m_pTransform.Get()->*get)(0, &handedOut), MF_E_TRANSFORM_TYPE_NOT_SET);
    EXPECT_EQ(handedOut, nullptr);
  }
}

TEST_F(Transform, OffersTypesAndKeepsWhatIsSet) {
  ComPtr<IMFMediaType> type;
  EXPECT_EQ(m_pTransform->GetInputAvailableType(0, 1, &type), MF_E_NO_MORE_TYPES);
  ASSERT_EQ(m_pTransform->GetInputAvailableType(0, 0, &type), S_OK);
  UINT32 count = 0;
  type->GetCount(&count);
  EXPECT_EQ(count, 2U);
  EXPECT_EQ(CheckVideoType(type.Get()), S_OK);
  EXPECT_EQ(m_pTransform->GetOutputAvailableType(0, 1, &type), MF_E_TRANSFORM_TYPE_NOT_SET);
  EXPECT_EQ(m_pTransform->SetOutputType(0, VideoType(8, 8).Get(), 0), S_OK) << "before an input, any size";

  for (const auto& [set, get] : {std::pair{&IMFTransform::SetInputType, &IMFTransform::GetInputCurrentType},
                                 {&IMFTransform::SetOutputType, &IMFTransform::GetOutputCurrentType}}) {
    const auto current = [&, get = get] {
      return (m_pTransform.Get()->*get)(0, type.ReleaseAndGetAddressOf());
    };
    const auto setType = [&, set = set](IMFMediaType* wanted, DWORD flags) {
      return (m_pTransform.Get()->*set)(0, wanted, flags);
    };
    EXPECT_EQ(setType(nullptr, 0), S_OK);
    const ComPtr<IMFMediaType> stored = VideoType(kWidth, kHeight);
    EXPECT_EQ(setType(stored.Get(), MFT_SET_TYPE_TEST_ONLY), S_OK);
    EXPECT_EQ(current(), MF_E_TRANSFORM_TYPE_NOT_SET) << "only tested";
    ASSERT_EQ(setType(stored.Get(), 0), S_OK);
    ASSERT_EQ(current(), S_OK);
    BOOL equal = FALSE;
    EXPECT_EQ(type->Compare(stored.Get(), MF_ATTRIBUTES_MATCH_ALL_ITEMS, &equal), S_OK);
    EXPECT_TRUE(equal);
    EXPECT_NE(type.Get(), stored.Get());
    EXPECT_EQ(setType(nullptr, MFT_SET_TYPE_TEST_ONLY), S_OK);
    EXPECT_EQ(current(), MF_E_TRANSFORM_TYPE_NOT_SET) << "taken away even so";
    ASSERT_EQ(setType(stored.Get(), 0), S_OK);
  }
  EXPECT_EQ(m_pTransform->GetOutputAvailableType(0, 1, &type), MF_E_NO_MORE_TYPES);
}

TEST_F(Transform, ProposesTheCroppedSize) {
  Crop(16, 8);
  for (const std::int32_t height : {480, -480}) {
    ASSERT_EQ(m_pTransform->SetInputType(0, VideoType(640, height).Get(), 0), S_OK);
    ComPtr<IMFMediaType> type;
    ASSERT_EQ(m_pTransform->GetOutputAvailableType(0, 0, &type), S_OK);
    UINT32 bytes = 0, isFixed = 0;
    EXPECT_EQ(type->GetUINT32(MF_MT_SAMPLE_SIZE, &bytes), S_OK);
    EXPECT_EQ(type->GetUINT32(MF_MT_FIXED_SIZE_SAMPLES, &isFixed), S_OK);
    EXPECT_EQ(bytes, 846336U);
    EXPECT_EQ(isFixed, 1U);
    EXPECT_EQ(ReadFrameSize(type.Get())->cx, 608);
    EXPECT_EQ(ReadFrameSize(type.Get())->cy, 464);
    EXPECT_EQ(m_pTransform->SetOutputType(0, type.Get(), 0), S_OK) << "input height " << height;
    EXPECT_EQ(m_pTransform->SetOutputType(0, VideoType(640, 480).Get(), 0), MF_E_INVALIDMEDIATYPE);
    EXPECT_EQ(m_pTransform->SetOutputType(0, VideoType(608, -464).Get(), 0), MF_E_INVALIDMEDIATYPE);
  }
}

TEST_F(Transform, ReadsBothKindsOfFormatBlocks) {
  VIDEOINFOHEADER first = {};
  VIDEOINFOHEADER2 second = {};
  first.bmiHeader.biBitCount = 16;
  first.bmiHeader.biSizeImage = 1111;
  second.bmiHeader.biBitCount = 24;
  second.bmiHeader.biSizeImage = 2222;
  const std::tuple<GUID, const void*, ULONG, std::uint32_t, std::uint32_t> cases[] = {
      {FORMAT_VideoInfo, &first, sizeof first, 16, 1111},
      {FORMAT_VideoInfo2, &second, sizeof second, 24, 2222},
      {FORMAT_VideoInfo, &first, sizeof first - 1, 0, 0},
      {FORMAT_VideoInfo2, &second, sizeof second - 1, 0, 0}};
  for (const auto& [format, block, bytes, bits, size] : cases) {
    const Replaced<__imp_MFInitAMMediaTypeFromMFMediaType> older(
        [&](IMFMediaType*, GUID, AM_MEDIA_TYPE* type) {
          type->formattype = format;
          type->cbFormat = bytes;
          (type->pUnk = m_pTransform.Get())->AddRef();
          type->pbFormat = static_cast<BYTE*>(CoTaskMemAlloc(bytes));
          std::memcpy(type->pbFormat, block, bytes);
          return S_OK;
        });
    ImageParameters image;
    image.Read(VideoType(8, 8).Get());
    EXPECT_EQ(std::tuple(image.BitsImage, image.sampleSize), std::tuple(bits, size));
  }
}

TEST_F(Transform, KeepsAnEarlierSampleSize) {
  ComPtr<IMFMediaType> type = VideoType(kWidth, kHeight);
  type->SetUINT32(MF_MT_SAMPLE_SIZE, 12345);
  ASSERT_EQ(m_pTransform->SetInputType(0, type.Get(), 0), S_OK);
  ASSERT_EQ(m_pTransform->SetInputType(0, VideoType(8, 8).Get(), 0), S_OK);
  MFT_INPUT_STREAM_INFO info = {};
  EXPECT_EQ(m_pTransform->GetInputStreamInfo(0, &info), S_OK);
  EXPECT_EQ(info.cbSize, 12345U);
}

TEST_F(Transform, RefusesTypesItCannotProcess) {
  const ComPtr<IMFMediaType> audio = VideoType(kWidth, kHeight), unnamed = VideoType(kWidth, kHeight),
                             sizeless = VideoType(kWidth, kHeight), subtypeOnly = VideoType(kWidth, kHeight),
                             rgb32 = VideoType(8, 8, MFVideoFormat_RGB32);
  audio->SetGUID(MF_MT_MAJOR_TYPE, MFMediaType_Audio);
  unnamed->DeleteItem(MF_MT_SUBTYPE);
  sizeless->DeleteItem(MF_MT_FRAME_SIZE);
  subtypeOnly->DeleteItem(MF_MT_MAJOR_TYPE);
  for (const auto set : {&IMFTransform::SetInputType, &IMFTransform::SetOutputType}) {
    EXPECT_EQ((m_pTransform.Get()->*set)(0, audio.Get(), 0), MF_E_INVALIDMEDIATYPE);
    EXPECT_EQ((m_pTransform.Get()->*set)(0, rgb32.Get(), 0), MF_E_INVALIDMEDIATYPE);
    EXPECT_EQ((m_pTransform.Get()->*set)(0, unnamed.Get(), 0), MF_E_ATTRIBUTENOTFOUND);
    EXPECT_EQ((m_pTransform.Get()->*set)(0, subtypeOnly.Get(), 0), MF_E_ATTRIBUTENOTFOUND);
  }
  SetTypes();
  for (const ComPtr<IMFMediaType>& wrong :
       {audio, unnamed, sizeless, VideoType(kWidth - 1, kHeight), VideoType(kWidth, kHeight - 1),
        VideoType(kWidth, kHeight, MFVideoFormat_RGB32)})
    EXPECT_EQ(m_pTransform->SetOutputType(0, wrong.Get(), 0), MF_E_INVALIDMEDIATYPE);
  EXPECT_EQ(m_pTransform->SetOutputType(0, subtypeOnly.Get(), 0), S_OK) << "that is enough beside an input";

  ASSERT_EQ(m_pTransform->SetInputType(0, sizeless.Get(), 0), S_OK);
  MFT_OUTPUT_STREAM_INFO info = {};
  EXPECT_EQ(m_pTransform->GetOutputStreamInfo(0, &info), S_OK);
  EXPECT_EQ(info.cbSize, 0U);
  for (const ComPtr<IMFMediaType>& output : {VideoType(kWidth, kHeight), sizeless})
    EXPECT_EQ(m_pTransform->SetOutputType(0, output.Get(), 0), MF_E_INVALIDMEDIATYPE);
  EXPECT_EQ(m_pTransform->SetInputType(0, VideoType(8, 8).Get(), 0), S_OK) << "whatever comes out";
}

TEST_F(Transform, ProposesAllThatTheInputTypeTells) {
  const auto isReconnecting = [&] {
    VARIANT_BOOL on = VARIANT_TRUE;
    m_pSettings->get_AutoReconnect(&on);
    return on == VARIANT_TRUE;
  };
  m_pSettings->put_AutoReconnect(VARIANT_FALSE);
  const ComPtr<IMFMediaType> input = VideoType(100, -50);
  input->SetUINT32(MF_MT_DEFAULT_STRIDE, 300);
  ComPtr<IMFMediaType> type;
  EXPECT_EQ(m_pTransform->GetOutputAvailableType(0, 0, &type), MF_E_TRANSFORM_TYPE_NOT_SET);
  ASSERT_EQ(m_pTransform->SetInputType(0, input.Get(), 0), S_OK);
  EXPECT_EQ(m_pTransform->GetOutputAvailableType(0, 1, &type), MF_E_NO_MORE_TYPES);
  EXPECT_FALSE(isReconnecting()) << "nothing was proposed yet";
  ASSERT_EQ(m_pTransform->GetOutputAvailableType(0, 0, &type), S_OK);
  EXPECT_TRUE(isReconnecting());
  BOOL equal = FALSE;
  EXPECT_EQ(type->Compare(input.Get(), MF_ATTRIBUTES_MATCH_ALL_ITEMS, &equal), S_OK);
  EXPECT_TRUE(equal);
  m_traces.clear();
  EXPECT_EQ(m_pTransform->SetOutputType(0, type.Get(), 0), S_OK);
  EXPECT_EQ(m_traces, std::vector<std::string>{"CVStabilize::CheckTransform"});
  m_traces = {};
  MFT_OUTPUT_STREAM_INFO info = {};
  EXPECT_EQ(m_pTransform->GetOutputStreamInfo(0, &info), S_OK);
  EXPECT_EQ(info.cbSize, 300U * 50) << "the height without its sign";
  EXPECT_EQ(m_pTransform->SetOutputType(0, VideoType(100, 50).Get(), 0), MF_E_INVALIDMEDIATYPE);
}

}  // namespace
