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

}  // namespace
