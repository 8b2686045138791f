#include <atomic>
#include <cstdlib>
#include <gtest/gtest.h>
#include <new>
#include <thread>
#include <vector>

#include "precise/loops.h"
#include "precise/stabilizer.h"
#include "support/scene.h"

namespace {
std::atomic<int> g_allocations = 0;
}

// Every allocation of this program is counted. Compilers that see into these functions miss their pairing.
[[gnu::noinline]] void* operator new(std::size_t size) {
  ++g_allocations;
  if (void* const memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace precise {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::int32_t kWidth = 151, kHeight = 97;
constexpr int kFrames = 14;

PictureFormat FormatOf(int bits) {
  return {.width = kWidth, .height = kHeight, .planes = 3, .bitsPerSample = bits, .chromaShiftX = 1};
}

/// The planes of a picture behind each other.
template <class Byte>
std::array<PlaneOf<Byte>, kMaxPlanes> PlanesIn(Byte* bytes, const PictureFormat& format) {
  std::array<PlaneOf<Byte>, kMaxPlanes> planes;
  for (int plane = 0; plane < format.planes; ++plane) {
    const std::ptrdiff_t stride = std::ptrdiff_t{format.PlaneWidth(plane)} * format.BytesPerSample();
    planes[static_cast<std::size_t>(plane)] = {bytes, stride};
    bytes += stride * format.PlaneHeight(plane);
  }
  return planes;
}

std::size_t SizeOf(const PictureFormat& format) {
  return static_cast<std::size_t>(format.BytesPerSample() * kHeight * (kWidth + 2 * format.PlaneWidth(1)));
}

/// A scene's colours under a shaky camera.
std::vector<Bytes> MakeClip(const PictureFormat& format) {
  const Scene scene({kWidth, kHeight}, 24);
  std::vector<Bytes> clip;
  for (int i = 0; i < kFrames; ++i) {
    const Bytes packed = scene.Shoot(ShakyPose(i));
    Bytes& frame = clip.emplace_back();
    while (frame.size() < SizeOf(format)) {
      const int sample = packed[3 * (frame.size() % (kWidth * kHeight))] << (format.bitsPerSample - 8);
      frame.push_back(static_cast<std::uint8_t>(sample));
      if (format.bitsPerSample > 8) frame.push_back(static_cast<std::uint8_t>(sample >> 8));
    }
  }
  return clip;
}

struct Outcome {
  Bytes frames;
  int allocations;  ///< after construction
};

Outcome RunClip(const PictureFormat& format, const Settings& settings, SimdLevel cap,
                const RowRunner& runner) {
  const std::vector<Bytes> clip = MakeClip(format);
  Outcome outcome = {Bytes(SizeOf(format) * kFrames), 0};
  std::uint8_t* out = outcome.frames.data();
  CStabilizer stabilizer(format, settings, cap, runner);
  const int before = g_allocations;
  const auto deliver = [&] {
    while (stabilizer.CanDeliver()) {
      stabilizer.Deliver(PlanesIn(out, format));
      out += SizeOf(format);
    }
  };
  for (const Bytes& frame : clip) {
    stabilizer.Push(PlanesIn(frame.data(), format));
    deliver();
  }
  stabilizer.End();
  deliver();
  outcome.allocations = g_allocations - before;
  return outcome;
}

/// Three threads, one row each in turn, from the last to the first.
void RunOnThreads(std::int32_t rows, RowWork work, const void* context) {
  std::vector<std::thread> threads;
  for (std::int32_t first = 0; first < 3; ++first)
    threads.emplace_back([=] {
      for (std::int32_t row = rows - 1 - first; row >= 0; row -= 3) work(context, row, row + 1);
    });
  for (std::thread& thread : threads) thread.join();
}

TEST(Running, GivesTheSameBytesAtEveryLevelOnAnyThreadsAndAllocatesNothing) {
  for (const int bits : {8, 10, 16})
    for (const auto interpolation : {Interpolation::Nearest, Interpolation::Bilinear, Interpolation::Bicubic})
      for (const bool hasMargins : {false, true}) {
        Settings settings;
        settings.window = 8;
        settings.marginX = settings.marginY = hasMargins ? 6 : 0;
        settings.interpolation = interpolation;
        settings.background = {1, 2, 3};
        settings.keepBackground = bits == 10;
        const PictureFormat format = FormatOf(bits);
        ASSERT_TRUE(AreUsable(format, settings));
        const std::string what = std::to_string(bits) + " bits, interpolation " +
                                 std::to_string(static_cast<int>(interpolation)) +
                                 (hasMargins ? ", margins" : "");
        const Outcome scalar = RunClip(format, settings, SimdLevel::Scalar, {});
        const Outcome best = RunClip(format, settings, SimdLevel::Avx2, {});
        EXPECT_EQ(scalar.allocations, 0) << what;
        EXPECT_EQ(best.allocations, 0) << what;
        EXPECT_TRUE(best.frames == scalar.frames) << what;
        EXPECT_TRUE(RunClip(format, settings, SimdLevel::Avx2, RunOnThreads).frames == scalar.frames) << what;
      }
}

}  // namespace
}  // namespace precise
