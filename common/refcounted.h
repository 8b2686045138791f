#pragma once

#include <windows.h>

/// Counts the references of a COM object with these interfaces. It is made with one, and ends with the last.
template <class... Interfaces>
class CRefCounted : public Interfaces... {
 public:
  STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(InterlockedIncrement(&m_nRefCount)); }
  STDMETHODIMP_(ULONG) Release() override {
    const LONG count = InterlockedDecrement(&m_nRefCount);
    if (count == 0) Destroy();
    return static_cast<ULONG>(count);
  }

 protected:
  CRefCounted() = default;
  virtual ~CRefCounted() = default;

  /// The last reference is gone.
  virtual void Destroy() { delete this; }

  LONG m_nRefCount = 1;
};
