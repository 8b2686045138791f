#pragma once

#include <windows.h>

#include <gtest/gtest.h>
#include <mferror.h>
#include <mfobjects.h>
#include <wrl/client.h>

/// A host's media buffer between pages that nobody may touch: whoever reads or writes outside on the guarded
/// side ends the program. Expects to be unlocked as often as it was locked.
class HostBuffer final : public IMFMediaBuffer {
 public:
  enum class Guard { Begin, End };

  HostBuffer(DWORD bytes, Guard guard, BYTE fill = 0);
  HostBuffer(const HostBuffer&) = delete;
  HostBuffer& operator=(const HostBuffer&) = delete;

  BYTE* Bytes() const { return m_pBytes; }

  HRESULT setLengthResult = S_OK;
  int locksLeft = 1000;  ///< after these, locking fails with E_ACCESSDENIED
  bool wasLocked = false;

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override;
  STDMETHODIMP_(ULONG) AddRef() override { return ++m_references; }
  STDMETHODIMP_(ULONG) Release() override;
  STDMETHODIMP Lock(BYTE** bytes, DWORD* capacity, DWORD* length) override;
  STDMETHODIMP Unlock() override;
  STDMETHODIMP GetCurrentLength(DWORD* length) override;
  STDMETHODIMP SetCurrentLength(DWORD length) override;
  STDMETHODIMP GetMaxLength(DWORD* length) override;

 private:
  ~HostBuffer();

  ULONG m_references = 1;
  int m_locks = 0;
  DWORD m_capacity, m_length;
  void* m_pPages;
  BYTE* m_pBytes;
};
