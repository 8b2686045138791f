#include <windows.h>

#include <memory>
#include <mferror.h>
#include <utility>

#include "engine/testenvironment.h"
#include "kernel/frame.h"
#include "mft/mft_vstabilize.h"
#include "support/scene.h"

using Microsoft::WRL::ComPtr;

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::int32_t kWidth = 64, kHeight = 48;
constexpr LONGLONG kFrameTime = 333333;

ComPtr<IMFMediaType> VideoType(std::int32_t width = kWidth, std::int32_t height = kHeight,
                               const GUID& subtype = MFVideoFormat_RGB24) {
  ComPtr<IMFMediaType> type;
  EXPECT_EQ(MFCreateMediaType(&type), S_OK);
  type->SetGUID(MF_MT_MAJOR_TYPE, MFMediaType_Video);
  type->SetGUID(MF_MT_SUBTYPE, subtype);
  WriteFrameSize(type.Get(), {width, height});
  return type;
}

/// A sample over a buffer of that many bytes, all of them in use.
ComPtr<IMFSample> Sample(std::size_t bytes, std::uint8_t fill = 0) {
  ComPtr<IMFMediaBuffer> buffer;
  ComPtr<IMFSample> sample;
  EXPECT_EQ(MFCreateMemoryBuffer(static_cast<DWORD>(bytes), &buffer), S_OK);
  BYTE* pixels = nullptr;
  EXPECT_EQ(buffer->Lock(&pixels, nullptr, nullptr), S_OK);
  std::fill(pixels, pixels + bytes, fill);
  buffer->Unlock();
  buffer->SetCurrentLength(static_cast<DWORD>(bytes));
  EXPECT_EQ(MFCreateSample(&sample), S_OK);
  sample->AddBuffer(buffer.Get());
  return sample;
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

/// A transform of its own for each case; nothing of it may be left.
class Transform : public EngineTest {
 protected:
  Transform() {
    EXPECT_EQ(MediaFoundationSamples::LiveObjects::Count(), 0);
    EXPECT_EQ(CMFTVStabilize::CreateInstance(nullptr, IID_PPV_ARGS(&m_pTransform)), S_OK);
    EXPECT_EQ(m_pTransform.As(&m_pSettings), S_OK);
    EXPECT_GT(MediaFoundationSamples::LiveObjects::Count(), 0);
  }
  ~Transform() override {
    m_pSettings.Reset();
    EXPECT_EQ(m_pTransform.Reset(), 0U);
    EXPECT_EQ(MediaFoundationSamples::LiveObjects::Count(), 0);
  }

  void SetTypes(std::int32_t width = kWidth, std::int32_t height = kHeight) {
    ASSERT_EQ(m_pTransform->SetInputType(0, VideoType(width, height).Get(), 0), S_OK);
    AcceptProposal();
  }

  void AcceptProposal() {
    ComPtr<IMFMediaType> type;
    ASSERT_EQ(m_pTransform->GetOutputAvailableType(0, 0, &type), S_OK);
    ASSERT_EQ(m_pTransform->SetOutputType(0, type.Get(), 0), S_OK);
  }

  HRESULT Output(IMFSample* sample, DWORD* bufferStatus = nullptr) {
    MFT_OUTPUT_DATA_BUFFER buffer = {};
    buffer.pSample = sample;
    DWORD status = 77;
    const HRESULT hr = m_pTransform->ProcessOutput(0, 1, &buffer, &status);
    if (bufferStatus) *bufferStatus = buffer.dwStatus;
    return hr;
  }

  /// Feeds frame `number`, whose pixels and time tell it, and takes what comes.
  HRESULT Feed(int number) {
    const ComPtr<IMFSample> input = Sample(FrameBytes(), static_cast<std::uint8_t>(number));
    input->SetSampleTime(number * kFrameTime);
    input->SetSampleDuration(kFrameTime + number);
    input->SetUINT32(MFSampleExtension_CleanPoint, 1);
    if (number % 2 == 0) input->SetUINT32(MFSampleExtension_Discontinuity, 1);
    EXPECT_EQ(m_pTransform->ProcessInput(0, input.Get(), 0), S_OK);
    m_pOutput = Sample(FrameBytes(), 0xEE);
    return Output(m_pOutput.Get());
  }

  /// The frame that came out last is this one by its time, and by a pixel that no fill touches.
  void ExpectDelivered(int number) const {
    LONGLONG time = -1, duration = -1;
    UINT32 discontinuity = 0;
    EXPECT_EQ(m_pOutput->GetSampleTime(&time), S_OK);
    EXPECT_EQ(m_pOutput->GetSampleDuration(&duration), S_OK);
    EXPECT_EQ(time, number * kFrameTime);
    EXPECT_EQ(duration, kFrameTime + number);
    EXPECT_EQ(m_pOutput->GetUINT32(MFSampleExtension_Discontinuity, &discontinuity),
              number % 2 == 0 ? S_OK : MF_E_ATTRIBUTENOTFOUND);
    EXPECT_EQ(Content(m_pOutput.Get()).front(), number);
  }

  static std::size_t FrameBytes() {
    return static_cast<std::size_t>(FrameGeometry(kWidth, kHeight).SizeBytes());
  }

  ComPtr<IMFTransform> m_pTransform;
  ComPtr<IVKFVStabilize> m_pSettings;
  ComPtr<IMFSample> m_pOutput;
};

TEST_F(Transform, AnswersForItsInterfacesAndPassesTheFacades) {
  for (const IID& iid : {__uuidof(IUnknown), __uuidof(IMFTransform), __uuidof(ISpecifyPropertyPages),
                         __uuidof(IDispatch), __uuidof(IVKFVStabilize)}) {
    ComPtr<IUnknown> object;
    EXPECT_EQ(m_pTransform->QueryInterface(iid, &object), S_OK);
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

TEST_F(Transform, DescribesItsStreams) {
  DWORD a = 9, b = 9, c = 9, d = 9;
  EXPECT_EQ(m_pTransform->GetStreamLimits(&a, &b, &c, &d), S_OK);
  EXPECT_EQ(a + b + c + d, 4U);
  EXPECT_EQ(m_pTransform->GetStreamLimits(&a, &b, &c, nullptr), E_POINTER);
  EXPECT_EQ(m_pTransform->GetStreamCount(&a, &b), S_OK);
  EXPECT_EQ(a + b, 2U);
  EXPECT_EQ(m_pTransform->GetStreamCount(nullptr, &b), E_POINTER);

  MFT_INPUT_STREAM_INFO input = {};
  MFT_OUTPUT_STREAM_INFO output = {};
  EXPECT_EQ(m_pTransform->GetInputStreamInfo(0, &input), S_OK);
  EXPECT_EQ(input.dwFlags, 3U);
  EXPECT_EQ(input.cbSize, 0U);
  EXPECT_EQ(m_pTransform->GetInputStreamInfo(1, &input), MF_E_INVALIDSTREAMNUMBER);
  EXPECT_EQ(m_pTransform->GetOutputStreamInfo(0, nullptr), E_POINTER);
  SetTypes(101, 30);
  EXPECT_EQ(m_pTransform->GetInputStreamInfo(0, &input), S_OK);
  EXPECT_EQ(m_pTransform->GetOutputStreamInfo(0, &output), S_OK);
  EXPECT_EQ(input.cbSize, 304U * 30);
  EXPECT_EQ(output.cbSize, 304U * 30);
  EXPECT_EQ(output.dwFlags, 7U);
  EXPECT_EQ(m_pTransform->GetOutputStreamInfo(2, &output), MF_E_INVALIDSTREAMNUMBER);

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

TEST_F(Transform, OffersAndChecksTypes) {
  ComPtr<IMFMediaType> type;
  EXPECT_EQ(m_pTransform->GetInputAvailableType(0, 0, nullptr), E_INVALIDARG);
  EXPECT_EQ(m_pTransform->GetInputAvailableType(1, 0, &type), MF_E_INVALIDSTREAMNUMBER);
  EXPECT_EQ(m_pTransform->GetInputAvailableType(0, 1, &type), MF_E_NO_MORE_TYPES);
  ASSERT_EQ(m_pTransform->GetInputAvailableType(0, 0, &type), S_OK);
  UINT32 count = 0;
  type->GetCount(&count);
  EXPECT_EQ(count, 2U);
  EXPECT_EQ(CheckVideoType(type.Get()), S_OK);

  EXPECT_EQ(m_pTransform->GetOutputAvailableType(0, 0, type.ReleaseAndGetAddressOf()),
            MF_E_TRANSFORM_TYPE_NOT_SET);
  EXPECT_EQ(m_pTransform->GetInputCurrentType(0, &type), MF_E_TRANSFORM_TYPE_NOT_SET);
  EXPECT_EQ(m_pTransform->GetInputCurrentType(0, nullptr), E_POINTER);
  EXPECT_EQ(m_pTransform->SetInputType(7, nullptr, 2), E_INVALIDARG) << "flags come before everything";
  EXPECT_EQ(m_pTransform->SetInputType(7, nullptr, 0), MF_E_INVALIDSTREAMNUMBER);
  EXPECT_EQ(m_pTransform->SetInputType(0, VideoType(8, 8, MFVideoFormat_RGB32).Get(), 0),
            MF_E_INVALIDMEDIATYPE);
  EXPECT_EQ(m_pTransform->SetOutputType(0, VideoType(8, 8, MFVideoFormat_NV12).Get(), 0),
            MF_E_INVALIDMEDIATYPE);
  EXPECT_EQ(m_pTransform->SetOutputType(0, VideoType(8, 8).Get(), 0), S_OK) << "before an input, any size";
  EXPECT_EQ(m_pTransform->SetInputType(0, VideoType().Get(), MFT_SET_TYPE_TEST_ONLY), S_OK);
  EXPECT_EQ(m_pTransform->GetInputCurrentType(0, &type), MF_E_TRANSFORM_TYPE_NOT_SET) << "only tested";

  SetTypes();
  EXPECT_EQ(m_pTransform->SetOutputType(0, VideoType(kWidth, kHeight - 1).Get(), 0), MF_E_INVALIDMEDIATYPE);
  EXPECT_EQ(m_pTransform->GetOutputAvailableType(0, 1, &type), MF_E_NO_MORE_TYPES);
  ComPtr<IMFMediaType> stored = VideoType();
  ASSERT_EQ(m_pTransform->SetInputType(0, stored.Get(), 0), S_OK);
  ASSERT_EQ(m_pTransform->GetInputCurrentType(0, &type), S_OK);
  BOOL equal = FALSE;
  EXPECT_EQ(type->Compare(stored.Get(), MF_ATTRIBUTES_MATCH_ALL_ITEMS, &equal), S_OK);
  EXPECT_TRUE(equal);
  EXPECT_NE(type.Get(), stored.Get());
  EXPECT_EQ(m_pTransform->SetInputType(0, nullptr, MFT_SET_TYPE_TEST_ONLY), S_OK);
  EXPECT_EQ(m_pTransform->GetInputCurrentType(0, type.ReleaseAndGetAddressOf()), MF_E_TRANSFORM_TYPE_NOT_SET);
}

TEST_F(Transform, ProposesTheCroppedSizeAndTurnsReconnectionOn) {
  m_pSettings->put_AutoReconnect(VARIANT_FALSE);
  m_pSettings->put_ClippingOption(vkvstab_CLIPPINGOPTIONS_CROP);
  m_pSettings->put_LeftRightCropMargin(16);
  m_pSettings->put_TopBottomCropMargin(8);
  m_pSettings->put_CropEnabled(VARIANT_TRUE);
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
  }
  VARIANT_BOOL on = VARIANT_FALSE;
  m_pSettings->get_AutoReconnect(&on);
  EXPECT_EQ(on, VARIANT_TRUE);
}

TEST_F(Transform, KeepsAnEarlierSampleSize) {
  ComPtr<IMFMediaType> type = VideoType();
  type->SetUINT32(MF_MT_SAMPLE_SIZE, 12345);
  ASSERT_EQ(m_pTransform->SetInputType(0, type.Get(), 0), S_OK);
  ASSERT_EQ(m_pTransform->SetInputType(0, VideoType(8, 8).Get(), 0), S_OK);
  MFT_INPUT_STREAM_INFO info = {};
  EXPECT_EQ(m_pTransform->GetInputStreamInfo(0, &info), S_OK);
  EXPECT_EQ(info.cbSize, 12345U);
}

TEST_F(Transform, TakesOneSampleAtATime) {
  const ComPtr<IMFSample> sample = Sample(FrameBytes());
  EXPECT_EQ(m_pTransform->ProcessInput(0, sample.Get(), 0), MF_E_NOTACCEPTING) << "no types";
  SetTypes();
  EXPECT_EQ(m_pTransform->ProcessInput(0, nullptr, 0), E_POINTER);
  EXPECT_EQ(m_pTransform->ProcessInput(3, sample.Get(), 1), E_INVALIDARG);
  EXPECT_EQ(m_pTransform->ProcessInput(3, sample.Get(), 0), MF_E_INVALIDSTREAMNUMBER);
  ComPtr<IMFSample> empty;
  ASSERT_EQ(MFCreateSample(&empty), S_OK);
  EXPECT_EQ(m_pTransform->ProcessInput(0, empty.Get(), 0), E_FAIL);
  ComPtr<IMFMediaBuffer> second;
  const ComPtr<IMFSample> two = Sample(8);
  ASSERT_EQ(MFCreateMemoryBuffer(8, &second), S_OK);
  two->AddBuffer(second.Get());
  EXPECT_EQ(m_pTransform->ProcessInput(0, two.Get(), 0), MF_E_SAMPLE_HAS_TOO_MANY_BUFFERS);

  DWORD flags = 9;
  EXPECT_EQ(m_pTransform->GetInputStatus(0, &flags), S_OK);
  EXPECT_EQ(flags, static_cast<DWORD>(MFT_INPUT_STATUS_ACCEPT_DATA));
  EXPECT_EQ(m_pTransform->ProcessInput(0, sample.Get(), 0), S_OK);
  EXPECT_EQ(m_pTransform->ProcessInput(0, sample.Get(), 0), MF_E_NOTACCEPTING);
  EXPECT_EQ(m_pTransform->GetInputStatus(0, &flags), S_OK);
  EXPECT_EQ(flags, 0U);
  EXPECT_EQ(m_pTransform->GetOutputStatus(&flags), S_OK);
  EXPECT_EQ(flags, static_cast<DWORD>(MFT_OUTPUT_STATUS_SAMPLE_READY));
  EXPECT_EQ(m_pTransform->SetInputType(0, VideoType().Get(), 0),
            MF_E_TRANSFORM_CANNOT_CHANGE_MEDIATYPE_WHILE_PROCESSING);
  EXPECT_EQ(m_pTransform->SetOutputType(0, VideoType().Get(), 0),
            MF_E_TRANSFORM_CANNOT_CHANGE_MEDIATYPE_WHILE_PROCESSING);
  EXPECT_EQ(m_pTransform->ProcessMessage(MFT_MESSAGE_COMMAND_FLUSH, 0), S_OK);
  EXPECT_EQ(Output(sample.Get()), MF_E_TRANSFORM_NEED_MORE_INPUT) << "flushed";
  EXPECT_EQ(m_pTransform->ProcessMessage(MFT_MESSAGE_SET_D3D_MANAGER, 0), E_NOTIMPL);
  EXPECT_EQ(m_pTransform->ProcessMessage(MFT_MESSAGE_COMMAND_DRAIN, 0), S_OK);

  MFT_OUTPUT_DATA_BUFFER buffers[2] = {};
  DWORD status = 0;
  EXPECT_EQ(m_pTransform->ProcessOutput(1, 1, nullptr, nullptr), E_INVALIDARG);
  EXPECT_EQ(m_pTransform->ProcessOutput(0, 1, nullptr, &status), E_POINTER);
  EXPECT_EQ(m_pTransform->ProcessOutput(0, 1, buffers, nullptr), E_POINTER);
  EXPECT_EQ(m_pTransform->ProcessOutput(0, 2, buffers, &status), E_INVALIDARG);
  EXPECT_EQ(m_pTransform->ProcessOutput(0, 1, buffers, &status), E_INVALIDARG) << "no sample";
}

TEST_F(Transform, DeliversFramesWithTheTimingTheyCameWith) {
  m_pSettings->put_PathSmoothingLevel(vkvstab_PATHSMOOTHINGLEVEL_2);
  SetTypes();
  for (int number = 1; number <= 30; ++number) {
    const HRESULT hr = Feed(number);
    ASSERT_EQ(hr, number <= 4 ? MF_E_TRANSFORM_NEED_MORE_INPUT : S_OK) << number;
    if (hr == S_OK) ExpectDelivered(number - 4);
  }
  // A change of settings restarts the kernel: the frames in its delay line are lost, and their timing with
  // them.
  m_pSettings->put_PathSmoothingLevel(vkvstab_PATHSMOOTHINGLEVEL_1);
  for (int number = 31; number <= 40; ++number) {
    const HRESULT hr = Feed(number);
    ASSERT_EQ(hr, number <= 32 ? MF_E_TRANSFORM_NEED_MORE_INPUT : S_OK) << number;
    if (hr == S_OK) ExpectDelivered(number - 2);
  }
  for (const MFT_MESSAGE_TYPE message : {MFT_MESSAGE_NOTIFY_END_OF_STREAM, MFT_MESSAGE_COMMAND_FLUSH}) {
    EXPECT_EQ(m_pTransform->ProcessMessage(message, 0), S_OK);
    EXPECT_EQ(Feed(50), MF_E_TRANSFORM_NEED_MORE_INPUT) << "a new stream begins";
    EXPECT_EQ(Feed(51), MF_E_TRANSFORM_NEED_MORE_INPUT);
    EXPECT_EQ(Feed(52), S_OK);
    ExpectDelivered(50);
  }
}

TEST_F(Transform, KeepsNoTimingOfFramesThatTheKernelDoesNotTake) {
  m_pSettings->put_PathSmoothingLevel(std::bit_cast<vkvstab_PathSmoothingLevel>(5));
  SetTypes();
  for (int number = 1; number <= 50; ++number) EXPECT_EQ(Feed(number), MF_E_TRANSFORM_NEED_MORE_INPUT);
  m_pSettings->put_PathSmoothingLevel(vkvstab_PATHSMOOTHINGLEVEL_1);
  EXPECT_EQ(Feed(60), MF_E_TRANSFORM_NEED_MORE_INPUT);
  EXPECT_EQ(Feed(61), MF_E_TRANSFORM_NEED_MORE_INPUT);
  EXPECT_EQ(Feed(62), S_OK);
  ExpectDelivered(60);
}

TEST_F(Transform, PassesFramesWhenDisabledOrWhenTheRegionIsInvalid) {
  m_pSettings->put_Enabled(VARIANT_FALSE);
  SetTypes();
  UINT32 cleanPoint = 0;
  EXPECT_EQ(Feed(7), S_OK);
  ExpectDelivered(7);
  EXPECT_EQ(Content(m_pOutput.Get()), Bytes(FrameBytes(), 7));
  EXPECT_EQ(m_pOutput->GetUINT32(MFSampleExtension_CleanPoint, &cleanPoint), MF_E_ATTRIBUTENOTFOUND);

  m_pSettings->put_Enabled(VARIANT_TRUE);
  m_pSettings->put_ROIEnabled(VARIANT_TRUE);
  m_pSettings->put_ROILeft(500);
  m_pSettings->put_ROIRight(600);
  EXPECT_EQ(Feed(8), S_OK);
  ExpectDelivered(8);
  EXPECT_EQ(m_pOutput->GetUINT32(MFSampleExtension_CleanPoint, &cleanPoint), S_OK);
}

TEST_F(Transform, AnnouncesACroppedSizeKeepsTheSampleAndGoesOn) {
  m_pSettings->put_PathSmoothingLevel(vkvstab_PATHSMOOTHINGLEVEL_1);
  SetTypes();
  EXPECT_EQ(Feed(1), MF_E_TRANSFORM_NEED_MORE_INPUT);
  const ComPtr<IMFSample> input = Sample(FrameBytes(), 2);
  ASSERT_EQ(m_pTransform->ProcessInput(0, input.Get(), 0), S_OK);
  m_pSettings->put_ClippingOption(vkvstab_CLIPPINGOPTIONS_CROP);
  m_pSettings->put_LeftRightCropMargin(4);
  m_pSettings->put_CropEnabled(VARIANT_TRUE);

  const ComPtr<IMFSample> output = Sample(FrameBytes());
  DWORD status = 0;
  EXPECT_EQ(Output(output.Get(), &status), MF_E_TRANSFORM_STREAM_CHANGE);
  EXPECT_EQ(status, static_cast<DWORD>(MFT_OUTPUT_DATA_BUFFER_FORMAT_CHANGE));
  EXPECT_EQ(Output(output.Get()), MF_E_TRANSFORM_STREAM_CHANGE) << "until a new type is set";
  AcceptProposal();
  EXPECT_EQ(Output(output.Get()), MF_E_TRANSFORM_NEED_MORE_INPUT) << "the held sample was processed";
  EXPECT_EQ(Feed(3), MF_E_TRANSFORM_NEED_MORE_INPUT);
  EXPECT_EQ(Feed(4), S_OK);
}

TEST_F(Transform, TouchesNoBufferThatIsTooShort) {
  SetTypes();
  const auto process = [&](std::size_t inputBytes, std::size_t outputBytes) {
    const ComPtr<IMFSample> input = Sample(inputBytes, 1), output = Sample(outputBytes, 0xEE);
    EXPECT_EQ(m_pTransform->ProcessInput(0, input.Get(), 0), S_OK);
    const HRESULT hr = Output(output.Get());
    const bool isError = FAILED(hr) && hr != MF_E_TRANSFORM_NEED_MORE_INPUT;
    EXPECT_TRUE(!isError || Content(output.Get()) == Bytes(outputBytes, 0xEE));
    DWORD flags = 0;
    EXPECT_EQ(m_pTransform->GetInputStatus(0, &flags), S_OK);
    EXPECT_EQ(flags, static_cast<DWORD>(MFT_INPUT_STATUS_ACCEPT_DATA)) << "the sample is released";
    return hr;
  };
  EXPECT_EQ(process(FrameBytes() - 1, FrameBytes()), E_INVALIDARG);
  EXPECT_EQ(process(FrameBytes(), FrameBytes() - 1), MF_E_BUFFERTOOSMALL);
  EXPECT_EQ(process(FrameBytes(), FrameBytes()), MF_E_TRANSFORM_NEED_MORE_INPUT);
  // Sizes without pixels or beyond all memory.
  for (const auto& [width, height] : {std::pair{0, 48}, {0x7FFFFFFF, 0x7FFFFFFF}, {-1, -1}, {1, 48}}) {
    if (FAILED(m_pTransform->SetInputType(0, VideoType(width, height).Get(), 0))) continue;
    ComPtr<IMFMediaType> type;
    if (FAILED(m_pTransform->GetOutputAvailableType(0, 0, &type))) continue;
    if (FAILED(m_pTransform->SetOutputType(0, type.Get(), 0))) continue;
    process(FrameBytes(), FrameBytes());
  }
}

TEST_F(Transform, ForwardsNothingToAnEngineThatDoesNotExist) {
  m_pSettings->put_UseAdvancedEngine(VARIANT_TRUE);
  ComPtr<CVKVStabilizeImpl> facade;
  *facade.GetAddressOf() = new CVKVStabilizeImpl(GUID_NULL, nullptr);
  facade->SetAdvancedEngineAvailable(true);
  facade->put_UseAdvancedEngine(VARIANT_TRUE);
  ASSERT_EQ(facade->SaveAttributes(), S_OK);
  facade.Reset();
  ASSERT_EQ(m_pSettings->LoadAttributes(), S_OK);
  VARIANT_BOOL available = VARIANT_FALSE;
  m_pSettings->get_AdvancedEngineAvailable(&available);
  EXPECT_EQ(available, VARIANT_TRUE);
  SetTypes();
  EXPECT_EQ(Feed(1), MF_E_TRANSFORM_NEED_MORE_INPUT);
}

}  // namespace
