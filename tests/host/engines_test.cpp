#include <windows.h>

#include <algorithm>
#include <deque>
#include <gtest/gtest.h>
#include <mfapi.h>
#include <mferror.h>
#include <new>
#include <optional>
#include <random>

#include "host/commandrun.h"
#include "host/transformstabilizer.h"
#include "kernel/stabilizevideokernel.h"
#include "module/samples.h"
#include "scenes/scene.h"

using Microsoft::WRL::ComPtr;

namespace {

void ExpectSameBytes(const std::string& words, const Bytes& clip) {
  const Outcome kernel = RunWords(words + " --engine kernel", clip);
  const Outcome transform = RunWords(words + " --engine transform", clip);
  EXPECT_EQ(kernel.code, 0) << words << ": " << kernel.messages;
  EXPECT_EQ(transform.code, 0) << words << ": " << transform.messages;
  EXPECT_FALSE(kernel.output.empty());
  EXPECT_TRUE(kernel.output == transform.output) << words;
}

TEST(Engines, GiveTheSameBytesForEveryCombinationOfOptions) {
  const Bytes clip = ShakyClip(61, 50, 9);
  for (const char* const mode : {"", " --rotation"})
    for (const char* const quality : {"1", "2", "3", "4"})
      for (const char* const clipping : {"outline", "crop", "stretch"})
        for (const char* const margins : {"", " --crop 12,7", " --crop 0,5", " --crop 9,0", " --crop 99,99"})
          for (const char* const rest : {" --window 4 --interpolation nearest --background 204060",
                                         " --window 8 --roi 20,5,200,51", " --window 4 --roi 3,9,45,45"})
            ExpectSameBytes(std::string("--size 61x50 --quality ") + quality + mode + " --clip " + clipping +
                                margins + rest,
                            clip);
}

TEST(Engines, GiveTheSameBytesAtEverySizeAndWindow) {
  for (const auto& [width, height] :
       {std::pair{2, 2}, {3, 2}, {2, 31}, {5, 90}, {33, 7}, {64, 48}, {127, 65}, {322, 241}}) {
    const Bytes clip = ShakyClip(width, height, 5);
    const std::string size = "--size " + std::to_string(width) + 'x' + std::to_string(height);
    for (const char* const words : {"", " --rotation --quality 1 --clip stretch --crop 3,3",
                                    " --clip crop --background 070809", " --clip crop --crop 1,0 --rotation"})
      ExpectSameBytes(size + words + " --window 4", clip);
  }
  const Bytes clip = ShakyClip(64, 48, 70);
  for (const char* const window : {"4", "8", "12", "16", "24", "32", "64", "128"})
    ExpectSameBytes(std::string("--size 64x48 --window ") + window, clip);
}

/// Settings of any kind, at random.
class RandomSettings {
 public:
  StabilizerSettings Next() {
    StabilizerSettings settings;
    settings.Enabled = Below(8) != 0;
    settings.ROIEnabled = Below(2) == 0;
    settings.ROI = {Below(40), Below(40), 0, 30 + Below(120)};
    settings.ROI.right = settings.ROI.bottom;
    settings.GlobalEstimationCoefficients = Below(2);
    settings.GlobalEstimationQuality = Below(4);
    settings.PathSmoothingLevel = 4 + 4 * Below(2);
    for (std::uint8_t& color : settings.BkFillColor) color = static_cast<std::uint8_t>(Below(256));
    settings.CropEnabled = Below(3) != 0;
    settings.LeftRightCropMargin = Below(20);
    settings.TopBottomCropMargin = Below(20);
    settings.InterpolationType = Below(2);
    settings.ClippingOption = Below(3);
    return settings;
  }
  std::int32_t Below(std::int32_t limit) {
    return static_cast<std::int32_t>(m_random() % static_cast<unsigned>(limit));
  }

 private:
  std::mt19937 m_random;
};

/// What a transform is to give, from kernels alone.
class ExpectedStream {
 public:
  explicit ExpectedStream(FrameSize size) : m_size(size) {}

  void Change(const StabilizerSettings& settings) {
    m_settings = settings;
    m_kernel.Release();
  }

  /// Replaces the frame by the one that comes out, and gives that one's time.
  std::optional<LONGLONG> Process(Bytes& frame, LONGLONG time) {
    if (!m_settings.Enabled) return time;
    if (!m_kernel.IsInitialized()) {
      EXPECT_TRUE(m_kernel.Initialize(MakeKernelParams(m_settings, m_size)));
      m_times.clear();
    }
    bool noOutput = false;
    EXPECT_TRUE(m_kernel.ProcessFrame(frame.data(), false, &noOutput));
    m_times.push_back(time);
    if (noOutput) return std::nullopt;
    const LONGLONG delivered = m_times.front();
    m_times.pop_front();
    return delivered;
  }

 private:
  FrameSize m_size;
  StabilizerSettings m_settings;
  CStabilizeVideoKernel m_kernel;
  std::deque<LONGLONG> m_times;
};

/// A transform as a host holds it.
class HostedTransform {
 public:
  explicit HostedTransform(FrameSize size) {
    EXPECT_EQ(m_pTransform->SetInputType(0, VideoType(size.width, size.height).Get(), 0), S_OK);
    AcceptOutputType();
  }

  void Change(const StabilizerSettings& settings) { ConfigureTransform(m_pTransform.Get(), settings); }
  int FormatChanges() const { return m_formatChanges; }

  std::optional<LONGLONG> Process(Bytes& frame, LONGLONG time) {
    const ComPtr<IMFSample> input = Sample(frame), output = Sample(Bytes(frame.size()));
    input->SetSampleTime(time);
    EXPECT_EQ(m_pTransform->ProcessInput(0, input.Get(), 0), S_OK);
    MFT_OUTPUT_DATA_BUFFER buffer = {0, output.Get(), 0, nullptr};
    DWORD status = 0;
    HRESULT hr = m_pTransform->ProcessOutput(0, 1, &buffer, &status);
    if (hr == MF_E_TRANSFORM_STREAM_CHANGE) {
      ++m_formatChanges;
      AcceptOutputType();
      hr = m_pTransform->ProcessOutput(0, 1, &buffer, &status);
    }
    if (hr == MF_E_TRANSFORM_NEED_MORE_INPUT) return std::nullopt;
    EXPECT_EQ(hr, S_OK);
    LONGLONG delivered = -1;
    EXPECT_EQ(output->GetSampleTime(&delivered), S_OK);
    frame = Content(output.Get());
    return delivered;
  }

 private:
  void AcceptOutputType() {
    ComPtr<IMFMediaType> type;
    EXPECT_EQ(m_pTransform->GetOutputAvailableType(0, 0, &type), S_OK);
    EXPECT_EQ(m_pTransform->SetOutputType(0, type.Get(), 0), S_OK);
  }

  ComSession m_session{COINIT_MULTITHREADED};
  TransformModule m_module{false};
  ComPtr<IMFTransform> m_pTransform = m_module.CreateTransform();
  int m_formatChanges = 0;
};

TEST(Engines, GiveTheSameBytesAndTimesWhenSettingsChangeInMidStream) {
  const Scene scene({101, 90}, 24);
  const FrameSize size = {101, 90};
  HostedTransform transform(size);
  ExpectedStream expected(size);
  RandomSettings random;
  int delivered = 0;
  for (int i = 0; i < 800; ++i) {
    if (i == 0 || random.Below(12) == 0) {
      const StabilizerSettings settings = random.Next();
      transform.Change(settings);
      expected.Change(settings);
    }
    Bytes frame = scene.Shoot(ShakyPose(i)), expectedFrame = frame;
    const auto time = transform.Process(frame, i), expectedTime = expected.Process(expectedFrame, i);
    ASSERT_EQ(time, expectedTime) << "frame " << i;
    if (!time) continue;
    ASSERT_TRUE(frame == expectedFrame) << "frame " << i;
    ++delivered;
  }
  EXPECT_GT(delivered, 350);
  EXPECT_GT(transform.FormatChanges(), 5);
}

TEST(Engines, ReportAFrameThatFindsNoMemoryInTheTransform) {
  // A window that no kernel can be set up for ends in the same silence.
  StabilizerSettings settings;
  settings.PathSmoothingLevel = 5;
  TransformStabilizer stabilizer(settings, {64, 48}, false);
  for (int i = 0; i < 2; ++i) EXPECT_FALSE(stabilizer.Process(false));
  EXPECT_THROW(stabilizer.Process(false), std::bad_alloc);
}

}  // namespace
