#include <windows.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mfapi.h>
#include <new>
#include <vector>
#include <wrl/client.h>

#include "engine/stabilizersettings.h"
#include "mft/mft_vstabilize.h"
#include "scenes/scene.h"
#include "timing.h"

// The time that the transform adds to the kernel's. The transform copies a frame from one sample to another
// and stabilizes it there. Beside it, a plain copy is followed by the kernel. Both use the same frames in
// rings of samples that no core's cache holds: both read a cold input, and both kernels find the copied frame
// in the cache.

using Microsoft::WRL::ComPtr;

namespace {

std::atomic<long> g_allocations = 0;

constexpr std::int32_t kWidth = 1920, kHeight = 1080;
constexpr std::size_t kRing = 8, kWarmUp = 40, kRounds = 600;

void Check(HRESULT hr) {
  if (SUCCEEDED(hr)) return;
  std::fprintf(stderr, "error 0x%08lX\n", static_cast<unsigned long>(hr));
  std::exit(1);
}

double Now() {
  LARGE_INTEGER ticks, frequency;
  QueryPerformanceCounter(&ticks);
  QueryPerformanceFrequency(&frequency);
  return 1e3 * static_cast<double>(ticks.QuadPart) / static_cast<double>(frequency.QuadPart);
}

template <class Work>
double Milliseconds(Work work) {
  const double start = Now();
  work();
  return Now() - start;
}

/// A host's sample, whose pixels have a fixed address.
struct HostSample {
  HostSample() {
    const auto bytes = static_cast<DWORD>(FrameGeometry(kWidth, kHeight).SizeBytes());
    ComPtr<IMFMediaBuffer> buffer;
    Check(MFCreateMemoryBuffer(bytes, &buffer));
    Check(buffer->SetCurrentLength(bytes));
    Check(buffer->Lock(&pixels, nullptr, nullptr));
    Check(buffer->Unlock());
    Check(MFCreateSample(&sample));
    Check(sample->AddBuffer(buffer.Get()));
  }

  ComPtr<IMFSample> sample;
  BYTE* pixels = nullptr;
};

struct HostSamples {
  HostSample input, output;
};

using HostRing = std::array<HostSamples, kRing>;

class Contest {
 public:
  /// Estimates the motion from the whole frame, or from a square in its corner.
  explicit Contest(std::int32_t squareSide) {
    const std::vector<std::vector<std::uint8_t>> pictures = ShakyFrames(m_frame, kRing);
    for (HostRing& ring : m_rings)
      for (std::size_t i = 0; i < kRing; ++i)
        std::memcpy(ring[i].input.pixels, pictures[i].data(), pictures[i].size());
    KernelParams params = MakeKernelParams({}, {kWidth, kHeight});
    if (squareSide > 0) params.roi = {0, 0, squareSide, squareSide};
    Check(m_kernel.Initialize(params) ? S_OK : E_FAIL);
    Check(CMFTVStabilize::CreateInstance(nullptr, IID_PPV_ARGS(&m_pTransform)));
    ComPtr<IVKFVStabilize> settings;
    Check(m_pTransform.As(&settings));
    Check(settings->ResetToDefaults());
    Check(settings->put_ROIEnabled(squareSide > 0 ? VARIANT_TRUE : VARIANT_FALSE));
    Check(settings->put_ROIBottom(squareSide));
    ComPtr<IMFMediaType> type;
    Check(m_pTransform->GetInputAvailableType(0, 0, &type));
    Check(WriteFrameSize(type.Get(), {kWidth, kHeight}));
    Check(m_pTransform->SetInputType(0, type.Get(), 0));
    Check(m_pTransform->SetOutputType(0, type.Get(), 0));
  }

  void Transform(std::size_t round) {
    MFT_OUTPUT_DATA_BUFFER output = {};
    output.pSample = TransformSample(round).output.sample.Get();
    DWORD status = 0;
    Check(m_pTransform->ProcessInput(0, TransformSample(round).input.sample.Get(), 0));
    const HRESULT hr = m_pTransform->ProcessOutput(0, 1, &output, &status);
    if (round >= kWarmUp) Check(hr);
  }

  void Copy(std::size_t round) {
    std::memcpy(KernelSample(round).output.pixels, KernelSample(round).input.pixels, m_bytes);
  }

  void Kernel(std::size_t round) {
    bool noOutput = false;
    m_kernel.ProcessFrame(KernelSample(round).output.pixels, false, &noOutput);
  }

  void CheckThatBothAgree(std::size_t round) {
    const BYTE* const pixels = TransformSample(round).output.pixels;
    if (std::memcmp(pixels, KernelSample(round).output.pixels, m_bytes) != 0) Check(E_UNEXPECTED);
  }

 private:
  // Addresses influence the times as much as the code does, so the two exchange their rings each turn.
  HostSamples& TransformSample(std::size_t round) { return m_rings[round / kRing % 2][round % kRing]; }
  HostSamples& KernelSample(std::size_t round) { return m_rings[1 - round / kRing % 2][round % kRing]; }

  const FrameGeometry m_frame{kWidth, kHeight};
  const std::size_t m_bytes = static_cast<std::size_t>(m_frame.SizeBytes());
  std::array<HostRing, 2> m_rings;
  CStabilizeVideoKernel m_kernel;
  ComPtr<IMFTransform> m_pTransform;
};

struct Measured {
  double transform = 0, copy = 0, kernel = 0;  ///< milliseconds
  long allocations = 0;                        ///< by the transform
};

Measured Measure(Contest& contest, std::size_t round) {
  Measured measured;
  const auto runTransform = [&] {
    const long before = g_allocations;
    measured.transform = Milliseconds([&] { contest.Transform(round); });
    measured.allocations = g_allocations - before;
  };
  // The order alternates: the second to run finds the caches full of the first one's data.
  if (round % 2 == 0) runTransform();
  measured.copy = Milliseconds([&] { contest.Copy(round); });
  measured.kernel = Milliseconds([&] { contest.Kernel(round); });
  if (round % 2 == 1) runTransform();
  contest.CheckThatBothAgree(round);
  return measured;
}

void Run(const char* name, std::int32_t squareSide) {
  Contest contest(squareSide);
  std::vector<double> transform, kernel, copy, surplus;
  long allocations = 0;
  for (std::size_t round = 0; round < kWarmUp + kRounds; ++round) {
    const Measured measured = Measure(contest, round);
    if (round < kWarmUp) continue;
    allocations += measured.allocations;
    transform.push_back(measured.transform);
    kernel.push_back(measured.kernel);
    copy.push_back(measured.copy);
    surplus.push_back(measured.transform - (measured.copy + measured.kernel));
  }
  // The difference within a round, as both stretches have about the same length: interruptions hit long
  // stretches more often than short ones.
  const double copyTime = Median(copy), added = Median(surplus) + copyTime;
  std::printf("%-15s %10.2f %7.2f %11.2f %7.2f %6.2f %12ld\n", name, Median(transform), Median(kernel), added,
              copyTime, added / copyTime, allocations);
}

}  // namespace

void* operator new(std::size_t size) {
  ++g_allocations;
  if (void* const memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

int main() {
  Check(CoInitializeEx(nullptr, COINIT_MULTITHREADED));
  Check(MFStartup(MF_VERSION, MFSTARTUP_LITE));
  std::printf("%dx%d, medians of %d frames, milliseconds\n", int{kWidth}, int{kHeight}, int{kRounds});
  std::puts("motion from      transform  kernel  difference  memcpy  ratio  allocations");
  Run("whole frame", 0);
  // With less work there is less noise in the same difference.
  Run("256x256 pixels", 256);
  MFShutdown();
  CoUninitialize();
}
