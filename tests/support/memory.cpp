#include "support/memory.h"

#include <atomic>
#include <cstdlib>
#include <limits>
#include <new>

namespace {

constexpr std::int64_t kUnlimited = std::numeric_limits<std::int64_t>::max();
thread_local std::int64_t g_bytesLeft = kUnlimited;
std::atomic<std::int64_t> g_allocations = 0;

void* Allocate(std::size_t size) {
  const bool isAllowed = size <= static_cast<std::size_t>(g_bytesLeft);
  if (isAllowed && g_bytesLeft != kUnlimited) g_bytesLeft -= static_cast<std::int64_t>(size);
  ++g_allocations;
  void* const memory = isAllowed ? std::malloc(size > 0 ? size : 1) : nullptr;
  if (!memory) throw std::bad_alloc();
  return memory;
}

}  // namespace

void* operator new(std::size_t size) { return Allocate(size); }
void* operator new[](std::size_t size) { return Allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }

std::int64_t AllocationCount() { return g_allocations; }

LimitedMemory::LimitedMemory(std::int64_t bytes) { g_bytesLeft = bytes; }
LimitedMemory::~LimitedMemory() { g_bytesLeft = kUnlimited; }
