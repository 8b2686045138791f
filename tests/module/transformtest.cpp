#include "transformtest.h"

using Microsoft::WRL::ComPtr;

ComPtr<IMFSample> Sample(std::size_t bytes, std::uint8_t fill) { return Sample(Bytes(bytes, fill)); }

Transform::Transform() {
  EXPECT_EQ(MediaFoundationSamples::LiveObjects::Count(), 0);
  EXPECT_EQ(CMFTVStabilize::CreateInstance(nullptr, IID_PPV_ARGS(&m_pTransform)), S_OK);
  EXPECT_EQ(m_pTransform.As(&m_pSettings), S_OK);
  EXPECT_GT(MediaFoundationSamples::LiveObjects::Count(), 0);
}

Transform::~Transform() {
  m_pSettings.Reset();
  EXPECT_EQ(m_pTransform.Reset(), 0U);
  EXPECT_EQ(MediaFoundationSamples::LiveObjects::Count(), 0);
}

void Transform::SetTypes(std::int32_t width, std::int32_t height) {
  ASSERT_EQ(m_pTransform->SetInputType(0, VideoType(width, height).Get(), 0), S_OK);
  AcceptProposal();
}

void Transform::AcceptProposal() {
  ComPtr<IMFMediaType> type;
  ASSERT_EQ(m_pTransform->GetOutputAvailableType(0, 0, &type), S_OK);
  ASSERT_EQ(m_pTransform->SetOutputType(0, type.Get(), 0), S_OK);
}

void Transform::Crop(LONG leftRight, LONG topBottom) {
  m_pSettings->put_LeftRightCropMargin(leftRight);
  m_pSettings->put_TopBottomCropMargin(topBottom);
  m_pSettings->put_ClippingOption(vkvstab_CLIPPINGOPTIONS_CROP);
  m_pSettings->put_CropEnabled(VARIANT_TRUE);
}

HRESULT Transform::Output(IMFSample* sample) {
  MFT_OUTPUT_DATA_BUFFER buffer = {0, sample, 0, nullptr};
  DWORD status = 0;
  return m_pTransform->ProcessOutput(0, 1, &buffer, &status);
}

HRESULT Transform::Feed(int number) {
  ComPtr<IMFSample> input = Sample(FrameBytes(), static_cast<std::uint8_t>(number));
  input->SetSampleTime(number * kFrameTime);
  input->SetSampleDuration(kFrameTime + number);
  if (number % 2 != 0) input->SetUINT32(MFSampleExtension_CleanPoint, static_cast<UINT32>(number));
  if (number % 4 >= 2) input->SetUINT32(MFSampleExtension_Discontinuity, static_cast<UINT32>(number + 1));
  EXPECT_EQ(m_pTransform->ProcessInput(0, input.Get(), 0), S_OK);
  m_pOutput = Sample(FrameBytes(), 0xEE);
  const HRESULT hr = Output(m_pOutput.Get());
  EXPECT_EQ(input.Reset(), hr == MF_E_TRANSFORM_STREAM_CHANGE ? 1U : 0U) << "kept only until it is processed";
  return hr;
}

void Transform::ExpectDelivered(int number) const {
  const auto item = [&](const GUID& key) {
    UINT32 value = 0;
    m_pOutput->GetUINT32(key, &value);
    return static_cast<int>(value);
  };
  LONGLONG time = -1, duration = -1;
  VARIANT_BOOL isStabilized = VARIANT_FALSE;
  m_pSettings->get_Enabled(&isStabilized);
  EXPECT_EQ(m_pOutput->GetSampleTime(&time), S_OK);
  EXPECT_EQ(m_pOutput->GetSampleDuration(&duration), S_OK);
  EXPECT_EQ(time, number * kFrameTime);
  EXPECT_EQ(duration, kFrameTime + number);
  EXPECT_EQ(item(MFSampleExtension_Discontinuity), number % 4 >= 2 ? number + 1 : 0);
  EXPECT_EQ(item(MFSampleExtension_CleanPoint), number % 2 != 0 && isStabilized ? number : 0);
  EXPECT_EQ(Content(m_pOutput.Get()).front(), number);
}

bool Transform::IsHoldingASample() {
  DWORD input = 9, output = 9;
  EXPECT_EQ(m_pTransform->GetInputStatus(0, &input), S_OK);
  EXPECT_EQ(m_pTransform->GetOutputStatus(&output), S_OK);
  EXPECT_EQ(input != 0, output == 0) << "one or the other";
  return input == 0;
}

std::size_t Transform::FrameBytes(std::int32_t width, std::int32_t height) {
  return static_cast<std::size_t>(FrameGeometry(width, height).SizeBytes());
}
