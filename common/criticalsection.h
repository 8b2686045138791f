#pragma once

#include <windows.h>

#include <mutex>

/// A recursive mutex.
class CCriticalSection {
 public:
  CCriticalSection() { InitializeCriticalSection(&m_section); }
  ~CCriticalSection() { DeleteCriticalSection(&m_section); }
  CCriticalSection(const CCriticalSection&) = delete;
  CCriticalSection& operator=(const CCriticalSection&) = delete;

  void lock() { EnterCriticalSection(&m_section); }
  void unlock() { LeaveCriticalSection(&m_section); }

 private:
  CRITICAL_SECTION m_section;
};

using CAutoLock = std::lock_guard<CCriticalSection>;
