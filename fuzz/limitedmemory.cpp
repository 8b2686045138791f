#include "fuzz/limitedmemory.h"

#include <cstdlib>
#include <limits>
#include <new>

namespace {

constexpr std::int64_t kUnlimited = std::numeric_limits<std::int64_t>::max();
thread_local std::int64_t g_bytesLeft = kUnlimited;

void* Allocate(std::size_t size) {
  const bool isAllowed = size <= static_cast<std::size_t>(g_bytesLeft);
  if (isAllowed && g_bytesLeft != kUnlimited) g_bytesLeft -= static_cast<std::int64_t>(size);
  void* const memory = isAllowed ? std::malloc(size) : nullptr;
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

LimitedMemory::LimitedMemory(std::int64_t bytes) { g_bytesLeft = bytes; }
LimitedMemory::~LimitedMemory() { g_bytesLeft = kUnlimited; }
