#include "testenvironment.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <mutex>
#include <new>
#include <optional>

#include "engine/userhive.h"

namespace {

std::atomic<long> g_liveAllocations = 0;
std::atomic<std::size_t> g_smallestFailing = SIZE_MAX, g_largestFailing = 0;
std::vector<std::string>* g_pAssertions = nullptr;
std::vector<std::string>* g_pTraces = nullptr;
std::mutex g_reportsLock;

void* Allocate(std::size_t size) noexcept {
  const bool fails = size >= g_smallestFailing && size <= g_largestFailing;
  void* const memory = fails ? nullptr : std::malloc(size);
  if (memory) ++g_liveAllocations;
  return memory;
}

void* AllocateOrThrow(std::size_t size) {
  void* const memory = Allocate(size);
  if (!memory) throw std::bad_alloc();
  return memory;
}

void Free(void* memory) noexcept {
  if (!memory) return;
  --g_liveAllocations;
  // Makes a use after this visible.
  std::memset(memory, 0xDD, _msize(memory));
  std::atomic_signal_fence(std::memory_order_seq_cst);  // keeps the compiler from dropping the writes
  std::free(memory);
}

void Keep(std::vector<std::string>* reports, const std::string& text) {
  const std::lock_guard lock(g_reportsLock);
  if (reports) reports->push_back(text);
}

constexpr DebugReporter kCollector = {[](const char* condition, const char* file) {
                                        Keep(g_pAssertions, std::string(file) + ": " + condition);
                                      },
                                      [](const char* text) { Keep(g_pTraces, text); }};

class Platform : public ::testing::Environment {
 public:
  void SetUp() override {
    ASSERT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
    ASSERT_EQ(MFStartup(MF_VERSION, MFSTARTUP_LITE), S_OK);
    SetDebugReporter(&kCollector);
    m_hive.emplace();
  }
  void TearDown() override {
    m_hive.reset();
    MFShutdown();
    CoUninitialize();
  }

 private:
  std::optional<UserHive> m_hive;
};

const ::testing::Environment* const g_pPlatform = ::testing::AddGlobalTestEnvironment(new Platform);

}  // namespace

void* operator new(std::size_t size) { return AllocateOrThrow(size); }
void* operator new[](std::size_t size) { return AllocateOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return Allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return Allocate(size); }
void operator delete(void* memory) noexcept { Free(memory); }
void operator delete[](void* memory) noexcept { Free(memory); }
void operator delete(void* memory, std::size_t) noexcept { Free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { Free(memory); }

FailingAllocations::FailingAllocations(std::size_t smallest, std::size_t largest) {
  g_smallestFailing = smallest;
  g_largestFailing = largest;
}

FailingAllocations::~FailingAllocations() {
  g_smallestFailing = SIZE_MAX;
  g_largestFailing = 0;
}

EngineTest::EngineTest() {
  RegDeleteTreeA(HKEY_CURRENT_USER, "SOFTWARE\\Varkon Systems, Inc.");
  m_allocations = g_liveAllocations;
  g_pAssertions = &m_assertions;
  g_pTraces = &m_traces;
}

EngineTest::~EngineTest() {
  g_pAssertions = g_pTraces = nullptr;
  std::vector<std::string>().swap(m_assertions);
  std::vector<std::string>().swap(m_traces);
  // After a failure, the test framework keeps texts in memory.
  EXPECT_TRUE(HasFailure() || g_liveAllocations == m_allocations) << "memory is left";
}

long EngineTest::LiveAllocations() { return g_liveAllocations; }

Microsoft::WRL::ComPtr<CVKVStabilizeImpl> EngineTest::MakeFacade(VKVStabilizeImplCB* callback,
                                                                 MyAttributes::CreateFunction create) {
  Microsoft::WRL::ComPtr<CVKVStabilizeImpl> facade;
  *facade.GetAddressOf() = new CVKVStabilizeImpl(callback, create);
  return facade;
}
