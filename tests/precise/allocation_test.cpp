#include <atomic>
#include <cstdlib>
#include <gtest/gtest.h>
#include <new>

#include "precise/run.h"

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

void RunAtOnce(std::int32_t rows, RowWork work, const void* context) { work(context, 0, rows); }

TEST(Stream, AllocatesNothingOnceMade) {
  Settings bent, held;
  bent.window = held.window = 8;
  bent.marginX = bent.marginY = 6;
  held.tripod = held.keepBackground = true;
  const std::vector<PlanarFrame> frames = ShootAll(kSmall420, ShakyTakes("aaaaaaaaWaaaabbbbbbbbbbbb"));
  PlanarFrame delivered = frames[0];
  Picture out;
  for (std::size_t plane = 0; plane < 3; ++plane)
    out[plane] = {delivered[plane].data(), kSmall420.PlaneWidth(static_cast<int>(plane))};
  for (const Settings& settings : {bent, held}) {
    CStabilizer stabilizer(kSmall420, settings, SimdLevel::Avx2, RunAtOnce);
    const int before = g_allocations;
    for (const PlanarFrame& frame : frames) {
      ConstPicture in;
      for (std::size_t plane = 0; plane < 3; ++plane)
        in[plane] = {frame[plane].data(), out[plane].strideBytes};
      stabilizer.Push(in);
      if (stabilizer.CanDeliver()) stabilizer.Deliver(out);
    }
    stabilizer.End();
    while (stabilizer.CanDeliver()) stabilizer.Deliver(out);
    EXPECT_EQ(g_allocations, before);
  }
}

}  // namespace
}  // namespace precise
