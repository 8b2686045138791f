#include <windows.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <psapi.h>
#include <random>

#include "engine/threadteam.h"
#include "scenes/scene.h"
#include "transformtest.h"

using Microsoft::WRL::ComPtr;

namespace {

/// Any settings, good and bad, but none of the engine's choice.
void ChangeASetting(IVKFVStabilize* settings, std::mt19937& random) {
  constexpr int kWindows[] = {4, 8, 12, 16, 24, 32, 64, 128, 5};
  const auto any = [&](unsigned count) { return static_cast<LONG>(random() % count); };
  const auto flag = [&] { return any(2) == 0 ? VARIANT_TRUE : VARIANT_FALSE; };
  const std::function<void()> changes[] = {
      [&] { settings->put_Enabled(flag()); },
      [&] { settings->put_AutoReconnect(flag()); },
      [&] { settings->put_ROIEnabled(flag()); },
      [&] { settings->put_ROILeft(any(80) - 8); },
      [&] { settings->put_ROIBottom(any(80)); },
      [&] {
        settings->put_GlobalEstimationCoefficients(
            std::bit_cast<vkvstab_GlobalEstimationCoefficients>(any(2)));
      },
      [&] { settings->put_GlobalEstimationQuality(std::bit_cast<vkvstab_GlobalEstimationQuality>(any(5))); },
      [&] { settings->put_PathSmoothingLevel(std::bit_cast<vkvstab_PathSmoothingLevel>(kWindows[any(9)])); },
      [&] { settings->put_BkFillColor(static_cast<OLE_COLOR>(any(1 << 24))); },
      [&] { settings->put_CropEnabled(flag()); },
      [&] { settings->put_LeftRightCropMargin(any(40) - 4); },
      [&] { settings->put_TopBottomCropMargin(any(30) - 4); },
      [&] { settings->put_ClippingOption(std::bit_cast<vkvstab_enumClippingOption>(any(4))); },
  };
  changes[random() % std::size(changes)]();
}

class Endurance : public Transform {
 protected:
  /// Offers a frame as a host does; what the transform says to it.
  HRESULT Offer(IMFSample* input, IMFSample* output) {
    m_pTransform->ProcessInput(0, input, 0);
    const HRESULT hr = Output(output);
    if (hr == MF_E_TRANSFORM_STREAM_CHANGE) Renegotiate();
    return hr;
  }

  void Renegotiate() {
    ComPtr<IMFMediaType> type;
    m_pTransform->GetOutputCurrentType(0, &type);
    if (SUCCEEDED(m_pTransform->GetOutputAvailableType(0, 0, &type)))
      m_pTransform->SetOutputType(0, type.Get(), 0);
  }

  struct Memory {
    std::ptrdiff_t bytes;  ///< of the whole process
    long allocations;      ///< of ours
  };

  /// Between two streams and at default settings, so that two measurements compare.
  Memory Measure() {
    m_pSettings->ResetToDefaults();
    m_pTransform->ProcessMessage(MFT_MESSAGE_NOTIFY_END_OF_STREAM, 0);
    m_traces = m_assertions = {};
    PROCESS_MEMORY_COUNTERS counters = {};
    EXPECT_TRUE(GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters));
    EXPECT_GT(counters.PagefileUsage, 0U);
    return {static_cast<std::ptrdiff_t>(counters.PagefileUsage), LiveAllocations()};
  }
};

TEST_F(Endurance, ManyThreadsAtOnce) {
  SetTypes();
  m_pSettings->SaveAttributes();
  IMFAttributes* const store = static_cast<CVKVStabilizeImpl*>(m_pSettings.Get())->Attributes();
  std::atomic<int> offered = 0, delivered = 0, unexpected = 0, emptied = 0;
  ThreadTeam team;
  for (int i = 0; i < 2; ++i) {
    team.Repeat([&](std::mt19937& random) {
      const ComPtr<IMFSample> input = Sample(FrameBytes(), static_cast<std::uint8_t>(random()));
      const ComPtr<IMFSample> output = Sample(FrameBytes());
      input->SetSampleTime(1);
      const HRESULT hr = Offer(input.Get(), output.Get());
      if (hr == S_OK) ++delivered;
      ++offered;
      // The other size does not fit into these buffers.
      if (hr != S_OK && hr != MF_E_TRANSFORM_NEED_MORE_INPUT && hr != MF_E_TRANSFORM_STREAM_CHANGE &&
          hr != E_INVALIDARG)
        ++unexpected;
    });
  }
  team.Repeat([&](std::mt19937&) {
    DWORD status = 0;
    MFT_OUTPUT_STREAM_INFO info = {};
    if (m_pTransform->GetInputStatus(0, &status) != S_OK ||
        m_pTransform->GetOutputStreamInfo(0, &info) != S_OK)
      ++unexpected;
    auto window = vkvstab_PATHSMOOTHINGLEVEL_1;
    m_pSettings->get_PathSmoothingLevel(&window);
    if (window == 0) ++emptied;
  });
  team.Repeat([&](std::mt19937& random) { ChangeASetting(m_pSettings.Get(), random); });
  team.Repeat([&](std::mt19937& random) {
    if (random() % 2 == 0)
      m_pSettings->LoadAttributes();
    else if (random() % 2 == 0)
      m_pSettings->ResetToDefaults();
    else
      ChangeASetting(m_pSettings.Get(), random), m_pSettings->SaveAttributes();
  });
  team.Repeat([&](std::mt19937& random) {
    const CStoreLock lock(store);
    store->SetUINT32(VKVSTAB_ATTR_CLIPPING_OPTION, vkvstab_CLIPPINGOPTIONS_CROP);
    store->SetUINT32(VKVSTAB_ATTR_LEFT_RIGHT_CROP_MARGIN, random() % 20);
    store->SetUINT32(VKVSTAB_ATTR_CROP_ENABLED, 1);
  });
  team.Repeat([&](std::mt19937& random) {
    const std::int32_t width = random() % 4 == 0 ? 2 * kWidth : kWidth;
    if (random() % 4 == 0) m_pTransform->SetInputType(0, nullptr, 0);
    m_pTransform->SetInputType(0, VideoType(width, random() % 2 == 0 ? kHeight : -kHeight).Get(), 0);
    Renegotiate();
  });
  team.Repeat([&](std::mt19937& random) {
    constexpr MFT_MESSAGE_TYPE kMessages[] = {MFT_MESSAGE_COMMAND_FLUSH, MFT_MESSAGE_NOTIFY_END_OF_STREAM,
                                              MFT_MESSAGE_NOTIFY_START_OF_STREAM};
    m_pTransform->ProcessMessage(kMessages[random() % 3], 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  });
  team.WorkUntil([&] { return offered > 10000 && delivered > 10; });
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

TEST_F(Endurance, TenThousandFramesLeaveNoMemoryBehind) {
  std::mt19937 random(11);
  Bytes frames[8];
  for (unsigned i = 0; i < std::size(frames); ++i) frames[i] = RandomBytes(FrameBytes(), i);
  SetTypes();
  Memory early = {};
  int delivered = 0;
  // From the start on, memory for the longest delay line has been in use once.
  m_pSettings->put_PathSmoothingLevel(vkvstab_PATHSMOOTHINGLEVEL_8);
  for (int number = 1; number <= 128; ++number) Offer(Sample(frames[0]).Get(), Sample(FrameBytes()).Get());
  for (int number = 1; number <= 10000; ++number) {
    if (random() % 16 == 0) ChangeASetting(m_pSettings.Get(), random);
    if (random() % 4 == 0) Renegotiate();
    if (random() % 128 == 0) m_pTransform->SetInputType(0, VideoType(kWidth, kHeight).Get(), 0);
    const ComPtr<IMFSample> input = Sample(frames[random() % std::size(frames)]);
    input->SetSampleTime(number);
    const HRESULT hr = Offer(input.Get(), Sample(FrameBytes()).Get());
    if (hr == S_OK) ++delivered;
    EXPECT_TRUE(hr == S_OK || hr == MF_E_TRANSFORM_NEED_MORE_INPUT || hr == MF_E_TRANSFORM_STREAM_CHANGE)
        << hr;
    if (number == 1000) early = Measure();
  }
  const Memory late = Measure();
  EXPECT_GT(delivered, 1000);
  EXPECT_LT(late.bytes - early.bytes, 1 << 20);
  EXPECT_EQ(late.allocations, early.allocations);
}

}  // namespace
