#pragma once

#include <windows.h>

#include <cstring>
#include <gtest/gtest.h>
#include <mfobjects.h>

/// A media buffer beside an inaccessible page: an access beyond the guarded side ends the program. Expects as
/// many unlocks as locks.
class HostBuffer final : public IMFMediaBuffer {
 public:
  enum class Guard { Begin, End };

  HostBuffer(std::size_t bytes, Guard guard, BYTE fill) : m_capacity(static_cast<DWORD>(bytes)) {
    constexpr std::size_t kPage = 4096;
    const std::size_t usable = (bytes + kPage - 1) / kPage * kPage;
    m_pPages = VirtualAlloc(nullptr, usable + 2 * kPage, MEM_RESERVE, PAGE_NOACCESS);
    BYTE* const first = static_cast<BYTE*>(m_pPages) + kPage;
    if (usable > 0) VirtualAlloc(first, usable, MEM_COMMIT, PAGE_READWRITE);
    pixels = guard == Guard::Begin ? first : first + (usable - bytes);
    std::memset(pixels, fill, bytes);
  }
  HostBuffer(const HostBuffer&) = delete;
  HostBuffer& operator=(const HostBuffer&) = delete;

  BYTE* pixels;
  HRESULT setLengthResult = S_OK;
  int locksLeft = 1000;  ///< after these, locking fails with E_ACCESSDENIED

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    const bool isOurs = iid == __uuidof(IUnknown) || iid == __uuidof(IMFMediaBuffer);
    *object = isOurs ? this : nullptr;
    if (isOurs) AddRef();
    return isOurs ? S_OK : E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++m_references; }
  STDMETHODIMP_(ULONG) Release() override {
    const ULONG count = --m_references;
    if (count == 0) delete this;
    return count;
  }
  STDMETHODIMP Lock(BYTE** bytes, DWORD* capacity, DWORD* length) override {
    if (locksLeft-- <= 0) return E_ACCESSDENIED;
    ++m_locks;
    *bytes = pixels;
    if (capacity) *capacity = m_capacity;
    if (length) *length = m_length;
    return S_OK;
  }
  STDMETHODIMP Unlock() override { return --m_locks, S_OK; }
  STDMETHODIMP GetCurrentLength(DWORD* length) override { return *length = m_length, S_OK; }
  STDMETHODIMP GetMaxLength(DWORD* length) override { return *length = m_capacity, S_OK; }
  STDMETHODIMP SetCurrentLength(DWORD length) override {
    EXPECT_LE(length, m_capacity);
    if (SUCCEEDED(setLengthResult)) m_length = length;
    return setLengthResult;
  }

 private:
  ~HostBuffer() {
    EXPECT_EQ(m_locks, 0) << "left locked";
    VirtualFree(m_pPages, 0, MEM_RELEASE);
  }

  ULONG m_references = 1;
  int m_locks = 0;
  const DWORD m_capacity;
  DWORD m_length = m_capacity;
  void* m_pPages;
};
