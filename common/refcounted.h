#pragma once

#include <windows.h>

/// Counts the references of a COM object with these interfaces, from 1. The object ends when none is left.
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

  /// Called when the last reference is released.
  virtual void Destroy() { delete this; }

  LONG m_nRefCount = 1;
};
