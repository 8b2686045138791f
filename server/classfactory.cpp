#include "server/classfactory.h"

#include "common/baseobject.h"
#include "common/comboundary.h"
#include "common/debugreport.h"

namespace MediaFoundationSamples {

HRESULT ClassFactory::Create(CreationFunction create, REFIID iid, void** factory) {
  return ComBoundary([&] {
    auto* const made = new ClassFactory(create);
    const HRESULT hr = made->QueryInterface(iid, factory);
    made->Release();
    return hr;
  });
}

STDMETHODIMP ClassFactory::QueryInterface(REFIID iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (iid != __uuidof(IUnknown) && iid != __uuidof(IClassFactory)) return E_NOINTERFACE;
  *object = static_cast<IClassFactory*>(this);
  AddRef();
  return S_OK;
}

STDMETHODIMP_(ULONG) ClassFactory::Release() {
  DebugAssert(m_nRefCount >= 0, "m_refCount >= 0", "classfactory");
  return CRefCounted::Release();
}

STDMETHODIMP ClassFactory::CreateInstance(IUnknown* outer, REFIID iid, void** object) {
  if (object) *object = nullptr;
  if (outer && iid != __uuidof(IUnknown)) return E_NOINTERFACE;
  return m_create(outer, iid, object);
}

STDMETHODIMP ClassFactory::LockServer(BOOL lock) {
  if (lock)
    LiveObjects::Add();
  else
    LiveObjects::Remove();
  return S_OK;
}

}  // namespace MediaFoundationSamples
