#include "host/transformstabilizer.h"

#include <mferror.h>
#include <new>

#include "automation/vkvstabilize.h"
#include "host/transform.h"
#include "host/workerror.h"

using Microsoft::WRL::ComPtr;

namespace {

// Raw video has no time stamps, so any frame rate will do.
constexpr LONGLONG kFrameDuration = 10'000'000 / 30;

VARIANT_BOOL Flag(bool value) { return value ? VARIANT_TRUE : VARIANT_FALSE; }

UINT64 Packed(FrameSize size) {
  return static_cast<UINT64>(size.width) << 32 | static_cast<UINT32>(size.height);
}

}  // namespace

void ConfigureTransform(IMFTransform* transform, const StabilizerSettings& settings) {
  ComPtr<IVKFVStabilize> stabilize;
  Check(transform->QueryInterface(IID_PPV_ARGS(&stabilize)), "the transform cannot be configured");
  const auto& [blue, green, red] = settings.BkFillColor;
  const HRESULT results[] = {
      stabilize->ResetToDefaults(),
      stabilize->put_Enabled(Flag(settings.Enabled)),
      stabilize->put_ROIEnabled(Flag(settings.ROIEnabled)),
      stabilize->put_ROITop(settings.ROI.top),
      stabilize->put_ROILeft(settings.ROI.left),
      stabilize->put_ROIBottom(settings.ROI.bottom),  // sets the right edge, too
      stabilize->put_GlobalEstimationCoefficients(
          static_cast<vkvstab_GlobalEstimationCoefficients>(settings.GlobalEstimationCoefficients)),
      stabilize->put_GlobalEstimationQuality(
          static_cast<vkvstab_GlobalEstimationQuality>(settings.GlobalEstimationQuality)),
      stabilize->put_PathSmoothingLevel(static_cast<vkvstab_PathSmoothingLevel>(settings.PathSmoothingLevel)),
      stabilize->put_BkFillColor(RGB(red, green, blue)),
      stabilize->put_CropEnabled(Flag(settings.CropEnabled)),
      stabilize->put_LeftRightCropMargin(settings.LeftRightCropMargin),
      stabilize->put_TopBottomCropMargin(settings.TopBottomCropMargin),
      stabilize->put_InterpolationType(static_cast<vkvstab_InterpolationType>(settings.InterpolationType)),
      stabilize->put_ClippingOption(static_cast<vkvstab_enumClippingOption>(settings.ClippingOption)),
      stabilize->put_UseAdvancedEngine(VARIANT_FALSE),
  };
  for (const HRESULT hr : results) Check(hr, "the transform refuses a setting");
}

TransformStabilizer::FrameSample::FrameSample(std::ptrdiff_t sizeBytes) {
  const auto size = static_cast<DWORD>(sizeBytes);
  Check(MFCreateMemoryBuffer(size, &m_pBuffer), "cannot make a frame buffer");
  Check(m_pBuffer->SetCurrentLength(size), "cannot make a frame buffer");
  Check(MFCreateSample(&m_pSample), "cannot make a sample");
  Check(m_pSample->AddBuffer(m_pBuffer.Get()), "cannot make a sample");
}

std::uint8_t* TransformStabilizer::FrameSample::Lock() {
  if (!m_pBytes) Check(m_pBuffer->Lock(&m_pBytes, nullptr, nullptr), "cannot lock a frame buffer");
  return m_pBytes;
}

void TransformStabilizer::FrameSample::Unlock() {
  if (m_pBytes) m_pBuffer->Unlock();
  m_pBytes = nullptr;
}

TransformStabilizer::TransformStabilizer(const StabilizerSettings& settings, FrameSize size, bool registered)
    : m_module(registered),
      m_pTransform(m_module.CreateTransform()),
      m_layout(settings, size),
      m_input(m_layout.inputBytes),
      m_output(m_layout.bufferBytes),
      m_framesToFill(settings.PathSmoothingLevel / 2) {
  m_layout.FillTail(m_output.Lock());
  ConfigureTransform(m_pTransform.Get(), settings);
  SetInputType(size);
  NegotiateOutputType();
  Check(m_pTransform->ProcessMessage(MFT_MESSAGE_NOTIFY_BEGIN_STREAMING, 0), "the transform does not start");
  Check(m_pTransform->ProcessMessage(MFT_MESSAGE_NOTIFY_START_OF_STREAM, 0), "the transform does not start");
}

void TransformStabilizer::SetInputType(FrameSize size) {
  ComPtr<IMFMediaType> type;
  Check(m_pTransform->GetInputAvailableType(0, 0, &type), "the transform offers no input type");
  Check(type->SetUINT64(MF_MT_FRAME_SIZE, Packed(size)), "cannot describe the frames");
  Check(type->SetUINT32(MF_MT_FIXED_SIZE_SAMPLES, TRUE), "cannot describe the frames");
  Check(type->SetUINT32(MF_MT_SAMPLE_SIZE, static_cast<UINT32>(m_layout.inputBytes)),
        "cannot describe the frames");
  Check(m_pTransform->SetInputType(0, type.Get(), 0), "the transform refuses frames of this size");
}

void TransformStabilizer::NegotiateOutputType() {
  ComPtr<IMFMediaType> type;
  UINT64 size = 0;
  Check(m_pTransform->GetOutputAvailableType(0, 0, &type), "the transform offers no output type");
  Check(type->GetUINT64(MF_MT_FRAME_SIZE, &size), "the transform offers output frames without a size");
  // Raw video has no head that could announce another size.
  if (size != Packed(m_layout.size)) throw WorkError("the transform offers output frames of another size");
  Check(m_pTransform->SetOutputType(0, type.Get(), 0), "the transform refuses what it proposed");
}

std::uint8_t* TransformStabilizer::InputFrame() { return m_input.Lock(); }

std::optional<StabilizedFrame> TransformStabilizer::Process(bool) {
  // The input buffer still holds the newest frame: sending it again repeats that frame.
  m_input.Unlock();
  m_output.Unlock();
  Check(m_input.Sample()->SetSampleTime(m_time), "cannot stamp a frame");
  Check(m_input.Sample()->SetSampleDuration(kFrameDuration), "cannot stamp a frame");
  m_time += kFrameDuration;
  Check(m_pTransform->ProcessInput(0, m_input.Sample(), 0), "the transform refuses a frame");

  HRESULT hr = MF_E_TRANSFORM_STREAM_CHANGE;
  for (bool isFirst = true; hr == MF_E_TRANSFORM_STREAM_CHANGE; isFirst = false) {
    if (!isFirst) NegotiateOutputType();
    MFT_OUTPUT_DATA_BUFFER buffer = {0, m_output.Sample(), 0, nullptr};
    DWORD status = 0;
    hr = m_pTransform->ProcessOutput(0, 1, &buffer, &status);
    ComPtr<IMFCollection> events;
    *events.GetAddressOf() = buffer.pEvents;
  }
  if (hr == MF_E_TRANSFORM_NEED_MORE_INPUT) {
    // Once the delay line is full, no output means that the transform had no memory for the frame.
    if (m_framesToFill-- == 0) throw std::bad_alloc();
    return std::nullopt;
  }
  Check(hr, "the transform fails");
  return StabilizedFrame{m_output.Lock(), m_layout.pitchBytes};
}

void TransformStabilizer::Finish() {
  Check(m_pTransform->ProcessMessage(MFT_MESSAGE_NOTIFY_END_OF_STREAM, 0), "the transform does not end");
  Check(m_pTransform->ProcessMessage(MFT_MESSAGE_NOTIFY_END_STREAMING, 0), "the transform does not end");
}

std::unique_ptr<Stabilizer> MakeTransformStabilizer(const StabilizerSettings& settings, FrameSize size,
                                                    bool registered) {
  return std::make_unique<TransformStabilizer>(settings, size, registered);
}
