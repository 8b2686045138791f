#include "hostbuffer.h"

#include <cstddef>
#include <cstring>

namespace {

constexpr std::size_t kPage = 4096;

}  // namespace

HostBuffer::HostBuffer(DWORD bytes, Guard guard, BYTE fill) : m_capacity(bytes), m_length(bytes) {
  const std::size_t usable = (bytes + kPage - 1) / kPage * kPage;
  m_pPages = VirtualAlloc(nullptr, usable + 2 * kPage, MEM_RESERVE, PAGE_NOACCESS);
  BYTE* const first = static_cast<BYTE*>(m_pPages) + kPage;
  if (usable > 0) VirtualAlloc(first, usable, MEM_COMMIT, PAGE_READWRITE);
  m_pBytes = guard == Guard::Begin ? first : first + (usable - bytes);
  std::memset(m_pBytes, fill, bytes);
}

HostBuffer::~HostBuffer() {
  EXPECT_EQ(m_locks, 0) << "left locked";
  VirtualFree(m_pPages, 0, MEM_RELEASE);
}

STDMETHODIMP HostBuffer::QueryInterface(REFIID iid, void** object) {
  const bool isOurs = iid == __uuidof(IUnknown) || iid == __uuidof(IMFMediaBuffer);
  *object = isOurs ? this : nullptr;
  if (!isOurs) return E_NOINTERFACE;
  AddRef();
  return S_OK;
}

STDMETHODIMP_(ULONG) HostBuffer::Release() {
  const ULONG count = --m_references;
  if (count == 0) delete this;
  return count;
}

STDMETHODIMP HostBuffer::Lock(BYTE** bytes, DWORD* capacity, DWORD* length) {
  if (locksLeft == 0) return E_ACCESSDENIED;
  --locksLeft;
  ++m_locks;
  wasLocked = true;
  *bytes = m_pBytes;
  if (capacity) *capacity = m_capacity;
  if (length) *length = m_length;
  return S_OK;
}

STDMETHODIMP HostBuffer::Unlock() {
  --m_locks;
  return S_OK;
}

STDMETHODIMP HostBuffer::GetCurrentLength(DWORD* length) {
  *length = m_length;
  return S_OK;
}

STDMETHODIMP HostBuffer::SetCurrentLength(DWORD length) {
  if (FAILED(setLengthResult)) return setLengthResult;
  EXPECT_LE(length, m_capacity);
  m_length = length;
  return S_OK;
}

STDMETHODIMP HostBuffer::GetMaxLength(DWORD* length) {
  *length = m_capacity;
  return S_OK;
}
