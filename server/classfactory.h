#pragma once

#include <windows.h>

#include <unknwn.h>

#include "common/refcounted.h"

namespace MediaFoundationSamples {

/// Creates an object and returns its interface `iid`.
using CreationFunction = HRESULT (*)(IUnknown* outer, REFIID iid, void** object);

/// The class object of one class. It does not count as a living object, so only `LockServer` makes it keep
/// the module loaded.
class ClassFactory final : public CRefCounted<IClassFactory> {
 public:
  /// Creates a factory and returns its interface `iid`. Releases the factory if it lacks the interface.
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
