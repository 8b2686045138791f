#include <string_view>

#include "transformtest.h"

using Microsoft::WRL::ComPtr;

namespace {

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

  EXPECT_FALSE(IsHoldingASample());
  EXPECT_EQ(m_pTransform->ProcessInput(0, sample.Get(), 0), S_OK);
  EXPECT_EQ(m_pTransform->ProcessInput(0, sample.Get(), 0), MF_E_NOTACCEPTING);
  EXPECT_TRUE(IsHoldingASample());
  EXPECT_EQ(m_pTransform->SetInputType(0, VideoType(kWidth, kHeight).Get(), 0),
            MF_E_TRANSFORM_CANNOT_CHANGE_MEDIATYPE_WHILE_PROCESSING);
  EXPECT_EQ(m_pTransform->SetOutputType(0, VideoType(kWidth, kHeight).Get(), 0),
            MF_E_TRANSFORM_CANNOT_CHANGE_MEDIATYPE_WHILE_PROCESSING);
  for (const MFT_MESSAGE_TYPE message :
       {MFT_MESSAGE_NOTIFY_END_OF_STREAM, MFT_MESSAGE_NOTIFY_START_OF_STREAM, MFT_MESSAGE_COMMAND_DRAIN}) {
    EXPECT_EQ(m_pTransform->ProcessMessage(message, 0), S_OK);
    EXPECT_TRUE(IsHoldingASample());
  }
  EXPECT_EQ(m_pTransform->ProcessMessage(MFT_MESSAGE_COMMAND_FLUSH, 0), S_OK);
  EXPECT_FALSE(IsHoldingASample());
  EXPECT_EQ(Output(sample.Get()), MF_E_TRANSFORM_NEED_MORE_INPUT) << "flushed";
  // Types may be taken away at any time.
  EXPECT_EQ(m_pTransform->ProcessInput(0, sample.Get(), 0), S_OK);
  EXPECT_EQ(m_pTransform->SetOutputType(0, nullptr, 0), S_OK);
  EXPECT_EQ(m_pTransform->SetInputType(0, nullptr, 0), S_OK);
  EXPECT_EQ(Output(Sample(FrameBytes()).Get()), MF_E_TRANSFORM_NEED_MORE_INPUT) << "taken all the same";
  ASSERT_EQ(m_pTransform->SetInputType(0, VideoType(kWidth, kHeight).Get(), 0), S_OK);
  EXPECT_EQ(m_pTransform->ProcessInput(0, sample.Get(), 0), MF_E_NOTACCEPTING) << "no output type";
  AcceptProposal();
  EXPECT_EQ(m_pTransform->ProcessMessage(MFT_MESSAGE_SET_D3D_MANAGER, 0), E_NOTIMPL);

  MFT_OUTPUT_DATA_BUFFER buffers[2] = {};
  DWORD status = 0;
  EXPECT_EQ(m_pTransform->ProcessOutput(1, 1, nullptr, nullptr), E_INVALIDARG);
  EXPECT_EQ(m_pTransform->ProcessOutput(0, 1, nullptr, &status), E_POINTER);
  EXPECT_EQ(m_pTransform->ProcessOutput(0, 1, buffers, nullptr), E_POINTER);
  EXPECT_EQ(m_pTransform->ProcessOutput(0, 2, buffers, &status), E_INVALIDARG);
  EXPECT_EQ(m_pTransform->ProcessOutput(0, 1, buffers, &status), E_INVALIDARG) << "no sample";
}

TEST_F(Transform, DeliversFramesWithTheTimingTheyCameWith) {
  SetTypes();
  const auto expectDelay = [&](int first, int last, int delay) {
    for (int number = first; number <= last; ++number) {
      ASSERT_EQ(Feed(number), number < first + delay ? MF_E_TRANSFORM_NEED_MORE_INPUT : S_OK) << number;
      if (number >= first + delay) ExpectDelivered(number - delay);
    }
  };
  m_pSettings->put_PathSmoothingLevel(vkvstab_PATHSMOOTHINGLEVEL_2);
  expectDelay(1, 30, 4);
  // A change of settings restarts the kernel: the frames in its delay line are lost, and their timing with
  // them.
  m_pSettings->put_PathSmoothingLevel(vkvstab_PATHSMOOTHINGLEVEL_1);
  expectDelay(31, 40, 2);
  for (const MFT_MESSAGE_TYPE message :
       {MFT_MESSAGE_NOTIFY_START_OF_STREAM, MFT_MESSAGE_NOTIFY_BEGIN_STREAMING, MFT_MESSAGE_COMMAND_DRAIN}) {
    EXPECT_EQ(m_pTransform->ProcessMessage(message, 0), S_OK);
    EXPECT_EQ(Feed(41), S_OK) << "the stream goes on";
  }
  for (const MFT_MESSAGE_TYPE message :
       {MFT_MESSAGE_NOTIFY_END_OF_STREAM, MFT_MESSAGE_NOTIFY_END_STREAMING, MFT_MESSAGE_COMMAND_FLUSH}) {
    const long allocations = LiveAllocations();
    EXPECT_EQ(m_pTransform->ProcessMessage(message, 0), S_OK);
    EXPECT_TRUE(message == MFT_MESSAGE_COMMAND_FLUSH || LiveAllocations() < allocations)
        << "the kernel's memory is given back";
    expectDelay(50, 52, 2);
  }
  SetTypes();
  expectDelay(60, 62, 2);

  // Frames that the kernel does not take leave no timing behind.
  m_pSettings->put_PathSmoothingLevel(std::bit_cast<vkvstab_PathSmoothingLevel>(5));
  expectDelay(70, 80, 50);
  m_pSettings->put_PathSmoothingLevel(vkvstab_PATHSMOOTHINGLEVEL_1);
  expectDelay(81, 84, 2);

  // Frames that pass through unchanged end the stream, even while AutoReconnect is off.
  m_pSettings->put_AutoReconnect(VARIANT_FALSE);
  m_pSettings->put_Enabled(VARIANT_FALSE);
  expectDelay(85, 86, 0);
  EXPECT_EQ(Content(m_pOutput.Get()), Bytes(FrameBytes(), 86));
  m_pSettings->put_Enabled(VARIANT_TRUE);
  expectDelay(87, 90, 2);
  m_pSettings->put_AutoReconnect(VARIANT_TRUE);
  // Frames with an empty region pass through unchanged as well.
  m_pSettings->put_ROIEnabled(VARIANT_TRUE);
  m_pSettings->put_ROILeft(500);
  m_pSettings->put_ROIRight(600);
  expectDelay(91, 92, 0);
}

TEST_F(Transform, KeepsStampsAndFramesTogetherWhenMemoryRunsOut) {
  SetTypes();
  for (int number = 1; number <= 10; ++number) EXPECT_EQ(Feed(number), MF_E_TRANSFORM_NEED_MORE_INPUT);
  {
    const FailingAllocations blocksOfRecords(400, 600);
    EXPECT_EQ(Feed(11), E_OUTOFMEMORY);
  }
  const ComPtr<IMFSample> input = Sample(FrameBytes()), output = Sample(FrameBytes());
  {
    const FailingAllocations frameCopies(FrameBytes(), FrameBytes());
    EXPECT_EQ(m_pTransform->ProcessInput(0, input.Get(), 0), S_OK);
    EXPECT_EQ(Output(output.Get()), MF_E_TRANSFORM_NEED_MORE_INPUT) << "the kernel took no frame";
  }
  for (int number = 12; number <= 40; ++number) {
    ASSERT_EQ(Feed(number), number <= 17 ? MF_E_TRANSFORM_NEED_MORE_INPUT : S_OK);
    if (number > 17) ExpectDelivered(number <= 27 ? number - 17 : number - 16);
  }
}

TEST_F(Transform, TakesNoMoreMemoryOnceAStreamRuns) {
  SetTypes();
  long before = 0;
  for (int number = 1; number <= 200; ++number) {
    if (number % 60 == 0) m_pSettings->put_BkFillColor(static_cast<OLE_COLOR>(number));
    Feed(number);
    m_traces = {};
    if (number == 100) before = LiveAllocations();
  }
  EXPECT_EQ(LiveAllocations(), before);
}

TEST_F(Transform, TellsTheStateOfTheOutputBuffer) {
  SetTypes();
  const ComPtr<IMFSample> frame = Sample(FrameBytes());
  const auto expectTold = [&](IMFSample* output, HRESULT result, DWORD bufferStatus, DWORD wholeStatus) {
    MFT_OUTPUT_DATA_BUFFER buffer = {0, output, 5, nullptr};
    DWORD status = 77;
    EXPECT_EQ(m_pTransform->ProcessInput(0, frame.Get(), 0), S_OK);
    EXPECT_EQ(m_pTransform->ProcessOutput(0, 1, &buffer, &status), result);
    EXPECT_EQ(buffer.dwStatus, bufferStatus);
    EXPECT_EQ(status, wholeStatus);
  };
  expectTold(frame.Get(), MF_E_TRANSFORM_NEED_MORE_INPUT, 5, 77);
  expectTold(Sample(1).Get(), MF_E_BUFFERTOOSMALL, 0, 0);
  m_pSettings->put_Enabled(VARIANT_FALSE);
  expectTold(frame.Get(), S_OK, 0, 0);
  m_pSettings->put_Enabled(VARIANT_TRUE);
  Crop(4, 4);
  expectTold(frame.Get(), MF_E_TRANSFORM_STREAM_CHANGE, 5 | MFT_OUTPUT_DATA_BUFFER_FORMAT_CHANGE, 77);
}

TEST_F(Transform, AnnouncesACroppedSizeKeepsTheSampleAndGoesOn) {
  m_pSettings->put_PathSmoothingLevel(vkvstab_PATHSMOOTHINGLEVEL_1);
  SetTypes();
  EXPECT_EQ(Feed(1), MF_E_TRANSFORM_NEED_MORE_INPUT);
  const ComPtr<IMFSample> input = Sample(FrameBytes(), 2);
  ASSERT_EQ(m_pTransform->ProcessInput(0, input.Get(), 0), S_OK);
  Crop(4, 0);

  const ComPtr<IMFSample> output = Sample(FrameBytes());
  for (int time = 0; time < 2; ++time)
    EXPECT_EQ(Output(output.Get()), MF_E_TRANSFORM_STREAM_CHANGE) << "until a new type is set";
  EXPECT_EQ(m_pTransform->SetOutputType(0, VideoType(kWidth, kHeight).Get(), 0), MF_E_INVALIDMEDIATYPE);
  EXPECT_EQ(m_pTransform->SetOutputType(0, VideoType(kWidth - 8, kHeight).Get(), MFT_SET_TYPE_TEST_ONLY),
            S_OK);
  EXPECT_EQ(Output(output.Get()), MF_E_TRANSFORM_STREAM_CHANGE) << "none was set";
  EXPECT_TRUE(IsHoldingASample());
  AcceptProposal();
  EXPECT_EQ(Output(output.Get()), MF_E_TRANSFORM_NEED_MORE_INPUT) << "the held sample was processed";
  EXPECT_EQ(Feed(3), MF_E_TRANSFORM_NEED_MORE_INPUT);
  EXPECT_EQ(Feed(4), S_OK);
}

TEST_F(Transform, AnnouncesOnlyWhatMakesFramesSmaller) {
  const auto announces = [&] {
    const bool isChange = Feed(1) == MF_E_TRANSFORM_STREAM_CHANGE;
    m_pTransform->ProcessMessage(MFT_MESSAGE_COMMAND_FLUSH, 0);
    if (isChange) AcceptProposal();
    return isChange;
  };
  Crop(4, 4);
  m_pSettings->put_CropEnabled(VARIANT_FALSE);
  SetTypes();
  m_pSettings->put_Enabled(VARIANT_FALSE);
  m_pSettings->put_CropEnabled(VARIANT_TRUE);
  EXPECT_FALSE(announces()) << "disabled";
  m_pSettings->put_Enabled(VARIANT_TRUE);
  EXPECT_TRUE(announces());
  m_pSettings->put_BkFillColor(0x123456);
  EXPECT_TRUE(announces()) << "any change while cropping";
  m_pSettings->put_CropEnabled(VARIANT_FALSE);
  EXPECT_FALSE(announces()) << "cropping ended";
  m_pSettings->put_ClippingOption(vkvstab_CLIPPINGOPTIONS_CROPANDSTRETCH);
  m_pSettings->put_CropEnabled(VARIANT_TRUE);
  EXPECT_FALSE(announces());
  Crop(0, 0);
  EXPECT_FALSE(announces());
  m_pSettings->put_TopBottomCropMargin(1);
  EXPECT_TRUE(announces()) << "one side is enough";
  m_pSettings->put_Enabled(VARIANT_FALSE);
  SetTypes(2, 2);
  m_pSettings->put_Enabled(VARIANT_TRUE);
  EXPECT_FALSE(announces()) << "nothing can be cut off";
  // The type's height counts with its sign.
  m_pSettings->put_Enabled(VARIANT_FALSE);
  SetTypes(2, -2);
  m_pSettings->put_Enabled(VARIANT_TRUE);
  EXPECT_TRUE(announces());
  SetTypes(kWidth, -kHeight);
  m_pSettings->put_BkFillColor(0);
  EXPECT_TRUE(announces()) << "a top-down picture";
  EXPECT_EQ(Feed(1), MF_E_TRANSFORM_NEED_MORE_INPUT);

  ASSERT_EQ(m_pTransform->SetInputType(0, nullptr, 0), S_OK);
  m_pSettings->put_BkFillColor(0x111111);
  ASSERT_EQ(m_pTransform->SetInputType(0, VideoType(kWidth, kHeight).Get(), 0), S_OK);
  EXPECT_FALSE(announces()) << "without a type there was nothing to change";
  const ComPtr<IMFMediaType> sizeless = VideoType(kWidth, kHeight);
  sizeless->DeleteItem(MF_MT_FRAME_SIZE);
  ASSERT_EQ(m_pTransform->SetInputType(0, sizeless.Get(), 0), S_OK);
  m_pSettings->put_BkFillColor(0x222222);
  EXPECT_FALSE(announces()) << "nor without a size";
}

IVKFVStabilize* g_pBusySettings = nullptr;

TEST_F(Transform, AnnouncesAChangeThatComesWhileATypeIsSet) {
  SetTypes();
  Crop(4, 4);
  EXPECT_EQ(Feed(1), MF_E_TRANSFORM_STREAM_CHANGE);
  ComPtr<IMFMediaType> type;
  ASSERT_EQ(m_pTransform->GetOutputAvailableType(0, 0, &type), S_OK);

  // Another thread's change during the check
  static constexpr DebugReporter kChanging = {[](const char*, const char*) {},
                                              [](const char* text) {
                                                if (std::string_view(text) == "CVStabilize::CheckTransform")
                                                  g_pBusySettings->put_BkFillColor(0x123456);
                                              }};
  g_pBusySettings = m_pSettings.Get();
  const DebugReporter* const collector = SetDebugReporter(&kChanging);
  EXPECT_EQ(m_pTransform->SetOutputType(0, type.Get(), 0), S_OK);
  SetDebugReporter(collector);
  EXPECT_EQ(Output(m_pOutput.Get()), MF_E_TRANSFORM_STREAM_CHANGE);
  EXPECT_EQ(m_pTransform->SetOutputType(0, type.Get(), 0), S_OK);
  EXPECT_EQ(Output(m_pOutput.Get()), MF_E_TRANSFORM_NEED_MORE_INPUT);
}

}  // namespace
