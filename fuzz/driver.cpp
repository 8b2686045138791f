// Takes the place of libFuzzer where the compiler has none, with two of its options: -runs=N and -seed=N. The
// last number that is printed is the seed of the run that failed.

#include <cstdint>
#include <cstdio>
#include <random>
#include <unistd.h>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

#ifdef _WIN32
static unsigned alarm(unsigned) { return 0; }  // CTest ends a run that hangs
#endif
constexpr unsigned kSecondsToHang = 60;

int main(int count, char** arguments) {
  int runs = 1000, seed = 1;
  for (int i = 1; i < count; ++i) {
    std::sscanf(arguments[i], "-runs=%d", &runs);
    std::sscanf(arguments[i], "-seed=%d", &seed);
  }
  for (const int end = seed + runs; seed < end; ++seed) {
    std::fprintf(stderr, "%d ", seed);
    std::mt19937 random(static_cast<std::uint32_t>(seed));
    std::vector<std::uint8_t> bytes(random() % 400);
    for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(random());
    alarm(kSecondsToHang);
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  std::printf("\n[       OK ] %d runs\n", runs);
}
