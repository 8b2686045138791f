// Stands in for libFuzzer where the compiler has none, with two of its options: -runs=N and -seed=N.

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

#ifdef _WIN32
constexpr int kEnds[] = {SIGABRT, SIGSEGV};
unsigned alarm(unsigned) { return 0; }  // CTest ends a run that hangs
#else
constexpr int kEnds[] = {SIGABRT, SIGALRM};
#endif

volatile std::sig_atomic_t g_seed = 0;

void TellSeed(int signal) {
  const std::string text = "\nto run it again: -runs=1 -seed=" + std::to_string(g_seed) + '\n';
  if (write(STDERR_FILENO, text.data(), static_cast<unsigned>(text.size())) >= 0)
    std::signal(signal, SIG_DFL);
  std::raise(signal);
}

int NumberOf(const char* argument, const char* option, int otherwise) {
  const std::size_t length = std::strlen(option);
  return std::strncmp(argument, option, length) == 0 ? std::atoi(argument + length) : otherwise;
}

constexpr unsigned kSecondsToHang = 60;

}  // namespace

/// The sanitizers' errors come as a signal, too.
extern "C" [[gnu::visibility("default")]] const char* __asan_default_options() { return "abort_on_error=1"; }

int main(int count, char** arguments) {
  int runs = 1000, seed = 1;
  for (int i = 1; i < count; ++i) {
    runs = NumberOf(arguments[i], "-runs=", runs);
    seed = NumberOf(arguments[i], "-seed=", seed);
  }
  for (const int signal : kEnds) std::signal(signal, TellSeed);
  for (int run = 0; run < runs; ++run) {
    g_seed = seed + run;
    std::mt19937 random(static_cast<std::uint32_t>(g_seed));
    std::vector<std::uint8_t> bytes(random() % 400);
    for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(random());
    alarm(kSecondsToHang);
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  std::printf("[       OK ] %d runs\n", runs);
}
