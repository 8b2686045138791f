#include <atomic>
#include <random>
#include <thread>

#include "transformtest.h"

using Microsoft::WRL::ComPtr;

namespace {

/// Puts any property but the choice of the engine; the value may be a bad one.
void ChangeASetting(IVKFVStabilize* settings, std::mt19937& random) {
  constexpr LONG kValues[] = {0, 1, 2, 3, 4, 5, 8, 16, 20, 60, -1, -8};
  VARIANT value = {};
  value.vt = VT_I4;
  value.lVal = kValues[random() % std::size(kValues)];
  DISPID put = DISPID_PROPERTYPUT;
  DISPPARAMS arguments = {&value, &put, 1, 1};
  settings->Invoke(static_cast<DISPID>(1 + random() % 18), IID_NULL, 0x409, DISPATCH_PROPERTYPUT, &arguments,
                   nullptr, nullptr, nullptr);
}

TEST_F(Transform, ServesManyThreadsAtOnce) {
  SetTypes();
  m_pSettings->SaveAttributes();
  const auto renegotiate = [&] {
    ComPtr<IMFMediaType> type;
    if (SUCCEEDED(m_pTransform->GetOutputAvailableType(0, 0, &type)))
      m_pTransform->SetOutputType(0, type.Get(), 0);
  };
  IMFAttributes* const store = static_cast<CVKVStabilizeImpl*>(m_pSettings.Get())->Attributes();
  std::atomic<int> unexpected = 0, emptied = 0;
  std::vector<std::thread> threads;
  const auto repeat = [&](int rounds, auto work) {
    threads.emplace_back([rounds, work, seed = threads.size()] {
      std::mt19937 random(static_cast<unsigned>(seed));
      for (int i = 0; i < rounds; ++i) work(random);
    });
  };
  for (int i = 0; i < 2; ++i) {
    repeat(5000, [&](std::mt19937& random) {
      const ComPtr<IMFSample> input = Sample(FrameBytes(), static_cast<std::uint8_t>(random()));
      m_pTransform->ProcessInput(0, input.Get(), 0);
      const HRESULT hr = Output(Sample(FrameBytes()).Get());
      if (hr == MF_E_TRANSFORM_STREAM_CHANGE)
        renegotiate();
      else if (hr != S_OK && hr != MF_E_TRANSFORM_NEED_MORE_INPUT && hr != E_INVALIDARG)
        ++unexpected;  // the other size does not fit into these buffers, which is E_INVALIDARG
    });
  }
  repeat(5000, [&](std::mt19937&) {
    DWORD status = 0;
    MFT_OUTPUT_STREAM_INFO info = {};
    if (m_pTransform->GetInputStatus(0, &status) != S_OK ||
        m_pTransform->GetOutputStreamInfo(0, &info) != S_OK)
      ++unexpected;
    UINT32 edge = 0;
    if (store->GetUINT32(VKVSTAB_ATTR_ROI_RIGHT, &edge) != S_OK) ++emptied;
  });
  repeat(2000, [&](std::mt19937& random) { ChangeASetting(m_pSettings.Get(), random); });
  repeat(500, [&](std::mt19937& random) {
    if (random() % 2 == 0)
      m_pSettings->LoadAttributes();
    else if (random() % 2 == 0)
      m_pSettings->ResetToDefaults();
    else
      ChangeASetting(m_pSettings.Get(), random), m_pSettings->SaveAttributes();
  });
  repeat(5000, [&](std::mt19937& random) {
    const CStoreLock lock(store);
    store->SetUINT32(VKVSTAB_ATTR_CLIPPING_OPTION, vkvstab_CLIPPINGOPTIONS_CROP);
    store->SetUINT32(VKVSTAB_ATTR_LEFT_RIGHT_CROP_MARGIN, random() % 20);
    store->SetUINT32(VKVSTAB_ATTR_CROP_ENABLED, 1);
  });
  repeat(2000, [&](std::mt19937& random) {
    const std::int32_t width = random() % 4 == 0 ? 2 * kWidth : kWidth;
    if (random() % 4 == 0) m_pTransform->SetInputType(0, nullptr, 0);
    m_pTransform->SetInputType(0, VideoType(width, random() % 2 == 0 ? kHeight : -kHeight).Get(), 0);
    renegotiate();
  });
  repeat(1000, [&](std::mt19937& random) {
    constexpr MFT_MESSAGE_TYPE kMessages[] = {MFT_MESSAGE_COMMAND_FLUSH, MFT_MESSAGE_NOTIFY_END_OF_STREAM,
                                              MFT_MESSAGE_NOTIFY_START_OF_STREAM};
    m_pTransform->ProcessMessage(kMessages[random() % 3], 0);
    std::this_thread::yield();
  });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(unexpected, 0);
  EXPECT_EQ(emptied, 0) << "reads of a store that was being loaded";
  m_traces = m_assertions = {};

  m_pSettings->ResetToDefaults();
  m_pTransform->ProcessMessage(MFT_MESSAGE_COMMAND_FLUSH, 0);
  m_pSettings->put_PathSmoothingLevel(vkvstab_PATHSMOOTHINGLEVEL_1);
  SetTypes();
  for (int number = 1; number <= 3; ++number) Feed(number);
  ExpectDelivered(1);
}

}  // namespace
