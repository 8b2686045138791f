#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <span>

#if defined(_WIN32)
#include <windows.h>
#else
#include <sys/mman.h>
#include <unistd.h>
#endif

/// Memory that ends at a page which cannot be read. Sanitizers do not see all that vector loops read.
class MemoryEnd {
 public:
  explicit MemoryEnd(std::size_t largestSize)
      : m_readable((largestSize + PageSize() - 1) / PageSize() * PageSize()), m_pages(Map()) {}
  ~MemoryEnd() { Unmap(); }
  MemoryEnd(const MemoryEnd&) = delete;
  MemoryEnd& operator=(const MemoryEnd&) = delete;

  /// The last `count` values before the end.
  template <class Value>
  std::span<Value> Last(std::size_t count) {
    return {reinterpret_cast<Value*>(m_pages + m_readable - count * sizeof(Value)), count};
  }

 private:
#if defined(_WIN32)
  static std::size_t PageSize() { return 65536; }
  std::uint8_t* Map() {
    void* const pages = VirtualAlloc(nullptr, m_readable + PageSize(), MEM_RESERVE, PAGE_NOACCESS);
    if (!pages || !VirtualAlloc(pages, m_readable, MEM_COMMIT, PAGE_READWRITE)) throw std::bad_alloc();
    return static_cast<std::uint8_t*>(pages);
  }
  void Unmap() { VirtualFree(m_pages, 0, MEM_RELEASE); }
#else
  static std::size_t PageSize() { return static_cast<std::size_t>(sysconf(_SC_PAGESIZE)); }
  std::uint8_t* Map() {
    void* const pages =
        mmap(nullptr, m_readable + PageSize(), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) throw std::bad_alloc();
    auto* const bytes = static_cast<std::uint8_t*>(pages);
    mprotect(bytes + m_readable, PageSize(), PROT_NONE);
    return bytes;
  }
  void Unmap() { munmap(m_pages, m_readable + PageSize()); }
#endif

  std::size_t m_readable;
  std::uint8_t* m_pages;
};
