#pragma once

#include <windows.h>

#include <unknwn.h>

#include "common/refcounted.h"

namespace MediaFoundationSamples {

/// Makes an object and gives the interface asked for.
using CreationFunction = HRESULT (*)(IUnknown* outer, REFIID iid, void** object);

/// Class object of one creatable class. Does not count as a living object of the module: a client that wants
/// to keep the module loaded locks the server.
class ClassFactory final : public CRefCounted<IClassFactory> {
 public:
  /// A factory with the interface asked for; `E_NOINTERFACE` leaves none behind.
  static HRESULT Create(CreationFunction create, REFIID iid, void** factory);

  ClassFactory(const ClassFactory&) = delete;
  ClassFactory& operator=(const ClassFactory&) = delete;

  // IUnknown
  STDMETHODIMP QueryInterface(REFIID iid, void** object) override;
  STDMETHODIMP_(ULONG) Release() override;

  // IClassFactory
  STDMETHODIMP CreateInstance(IUnknown* outer, REFIID iid, void** object) override;
  STDMETHODIMP LockServer(BOOL lock) override;

 private:
  explicit ClassFactory(CreationFunction create) : m_create(create) {}
  ~ClassFactory() override = default;

  const CreationFunction m_create;
};

}  // namespace MediaFoundationSamples
