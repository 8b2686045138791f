#pragma once

#include <windows.h>

#include <mftransform.h>
#include <string>
#include <unknwn.h>
#include <vector>
#include <wrl/client.h>

/// Throws WorkError with `what` and the code if `hr` is a failure.
void Check(HRESULT hr, const std::string& what);

/// Starts COM and Media Foundation for this thread, and ends them with the object.
class ComSession {
 public:
  /// `concurrency` as for CoInitializeEx. Throws WorkError.
  explicit ComSession(DWORD concurrency);
  ~ComSession();
  ComSession(const ComSession&) = delete;
  ComSession& operator=(const ComSession&) = delete;
};

/// Creates the transform from the module beside the program, which needs no registration, or as the
/// registered class. Must outlive every object that comes from it.
class TransformModule {
 public:
  /// Throws WorkError when there is no module beside the program.
  explicit TransformModule(bool registered);
  ~TransformModule();
  TransformModule(const TransformModule&) = delete;
  TransformModule& operator=(const TransformModule&) = delete;

  /// Throws WorkError.
  Microsoft::WRL::ComPtr<IMFTransform> CreateTransform() const;

  /// Makes the classes of the property pages known to COM in this process, so that the property frame can
  /// create them. Throws WorkError.
  void OfferPages(const CAUUID& pages);

 private:
  Microsoft::WRL::ComPtr<IClassFactory> ClassObject(const CLSID& clsid) const;

  HMODULE m_library = nullptr;        // null: the registered transform is used
  std::vector<DWORD> m_classCookies;  // of CoRegisterClassObject
};
