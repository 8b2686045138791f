#include "module/hostbuffer.h"
#include "transformtest.h"

using Microsoft::WRL::ComPtr;

namespace {

class HostBuffers : public Transform {
 protected:
  /// Makes the sample's buffer of the next frame.
  ComPtr<IMFSample> Make(std::size_t bytes, BYTE fill, ComPtr<HostBuffer>* buffer = nullptr) {
    ComPtr<HostBuffer> made;
    m_guard = m_guard == HostBuffer::Guard::End ? HostBuffer::Guard::Begin : HostBuffer::Guard::End;
    *made.GetAddressOf() = new HostBuffer(bytes, m_guard, fill);
    if (buffer) *buffer = made;
    return SampleOver(made.Get());
  }

  HRESULT Process(IMFSample* input, IMFSample* output) {
    EXPECT_EQ(m_pTransform->ProcessInput(0, input, 0), S_OK);
    const HRESULT hr = Output(output);
    EXPECT_FALSE(IsHoldingASample());
    return hr;
  }

  /// Nothing is written to the output unless there is a frame.
  HRESULT ProcessUntouched(std::size_t inputBytes, std::size_t outputBytes) {
    ComPtr<HostBuffer> buffer;
    const ComPtr<IMFSample> output = Make(outputBytes, 0xEE, &buffer);
    const HRESULT hr = Process(Make(inputBytes, 1).Get(), output.Get());
    EXPECT_EQ(Bytes(buffer->pixels, buffer->pixels + outputBytes), Bytes(outputBytes, 0xEE));
    return hr;
  }

  HostBuffer::Guard m_guard = HostBuffer::Guard::Begin;
};

TEST_F(HostBuffers, AreRefusedWhenTooShort) {
  SetTypes();
  const std::size_t bytes = FrameBytes();
  for (const std::size_t tooShort : {bytes - 1, std::size_t{1}, std::size_t{0}}) {
    EXPECT_EQ(ProcessUntouched(tooShort, bytes), E_INVALIDARG);
    EXPECT_EQ(ProcessUntouched(bytes, tooShort), MF_E_BUFFERTOOSMALL);
    EXPECT_EQ(ProcessUntouched(tooShort, tooShort), E_INVALIDARG);
  }
  // An input's length counts, and an output's capacity.
  const ComPtr<IMFSample> input = Sample(bytes), output = Sample(bytes);
  ComPtr<IMFMediaBuffer> buffer;
  output->GetBufferByIndex(0, &buffer);
  buffer->SetCurrentLength(0);
  EXPECT_EQ(Process(input.Get(), output.Get()), MF_E_TRANSFORM_NEED_MORE_INPUT);
  DWORD length = 0;
  buffer->GetCurrentLength(&length);
  EXPECT_EQ(length, bytes);
  input->GetBufferByIndex(0, buffer.ReleaseAndGetAddressOf());
  buffer->SetCurrentLength(static_cast<DWORD>(bytes - 1));
  EXPECT_EQ(Process(input.Get(), output.Get()), E_INVALIDARG);
}

TEST_F(HostBuffers, SurviveSizesWithoutPixelsAndBeyondAllMemory) {
  const LONG most = MAXLONG;
  for (const bool enabled : {false, true}) {
    m_pSettings->put_Enabled(enabled ? VARIANT_TRUE : VARIANT_FALSE);
    for (const LONG margin : {0L, 5L, most}) {
      Crop(margin, margin);
      for (const SIZE size : {SIZE{0, 0}, {0, 48}, {64, 0}}) {
        SetTypes(size.cx, size.cy);
        EXPECT_EQ(ProcessUntouched(64, 64), S_OK) << "an empty frame";
      }
      // Some of these frames have so many bytes that 32 bits hold a small number, or 0.
      for (const SIZE size : {SIZE{most, most}, {65536, 65536}, {0x55555556, 1}, {-1, -1}, {2, -most - 1}}) {
        SetTypes(size.cx, size.cy);
        EXPECT_EQ(ProcessUntouched(64, 64), E_INVALIDARG) << size.cx << "x" << size.cy;
        MFT_OUTPUT_STREAM_INFO info = {};
        EXPECT_EQ(m_pTransform->GetOutputStreamInfo(0, &info), S_OK);
        EXPECT_GT(info.cbSize, static_cast<DWORD>(most));
      }
    }
  }
  SetTypes();
  EXPECT_EQ(Feed(1), MF_E_TRANSFORM_NEED_MORE_INPUT) << "it works on";
}

TEST_F(HostBuffers, HaveTheirFailuresReported) {
  m_pSettings->put_PathSmoothingLevel(vkvstab_PATHSMOOTHINGLEVEL_1);
  SetTypes();
  for (int number = 1; number <= 3; ++number) Feed(number);
  const auto fail = [&](int inputLocks, int outputLocks, HRESULT setLength) {
    ComPtr<HostBuffer> inputBuffer, outputBuffer;
    const ComPtr<IMFSample> input = Make(FrameBytes(), 1, &inputBuffer),
                            output = Make(FrameBytes(), 2, &outputBuffer);
    inputBuffer->locksLeft = inputLocks;
    outputBuffer->locksLeft = outputLocks;
    outputBuffer->setLengthResult = setLength;
    const HRESULT hr = Process(input.Get(), output.Get());
    EXPECT_EQ(m_assertions, std::vector<std::string>{"mft_vstabilize: FALSE"});
    m_assertions = {};
    return hr;
  };
  EXPECT_EQ(fail(0, 9, S_OK), E_ACCESSDENIED);
  EXPECT_EQ(fail(9, 0, S_OK), E_ACCESSDENIED);
  EXPECT_EQ(fail(9, 1, S_OK), E_ACCESSDENIED);
  EXPECT_EQ(fail(9, 9, E_ABORT), E_ABORT);
  ComPtr<IMFSample> empty;
  ASSERT_EQ(MFCreateSample(&empty), S_OK);
  EXPECT_TRUE(FAILED(Process(Sample(FrameBytes()).Get(), empty.Get())));
  EXPECT_EQ(m_assertions.size(), 1U);
  m_assertions = {};
  // Frames that failed never reached the delay line.
  EXPECT_EQ(Feed(4), S_OK);
  ExpectDelivered(2);
}

TEST_F(HostBuffers, MayBeInputAndOutputAtOnce) {
  m_pSettings->put_PathSmoothingLevel(vkvstab_PATHSMOOTHINGLEVEL_1);
  SetTypes();
  for (int number = 1; number <= 6; ++number) {
    const ComPtr<IMFSample> sample = Make(FrameBytes(), static_cast<BYTE>(number));
    sample->SetSampleTime(number);
    ASSERT_EQ(Process(sample.Get(), sample.Get()), number <= 2 ? MF_E_TRANSFORM_NEED_MORE_INPUT : S_OK);
    LONGLONG time = 0;
    sample->GetSampleTime(&time);
    EXPECT_EQ(time, number <= 2 ? number : number - 2);
    EXPECT_EQ(Content(sample.Get()).front(), time);
  }
}

}  // namespace
