#pragma once

#include <windows.h>

#include <mftransform.h>
#include <string>
#include <unknwn.h>
#include <vector>
#include <wrl/client.h>

/// Throws WorkError that says what failed and with which code.
void Check(HRESULT hr, const std::string& what);

/// COM and Media Foundation, started for this thread and ended with the object.
class ComSession {
 public:
  /// `concurrency` as for CoInitializeEx. Throws WorkError.
  explicit ComSession(DWORD concurrency);
  ~ComSession();
  ComSession(const ComSession&) = delete;
  ComSession& operator=(const ComSession&) = delete;
};

/// Where the transform comes from: the module beside the program, which needs no registration, or whatever is
/// registered under its class identifier. It must outlive all that it made.
class TransformModule {
 public:
  /// Throws WorkError when there is no module beside the program.
  explicit TransformModule(bool registered);
  ~TransformModule();
  TransformModule(const TransformModule&) = delete;
  TransformModule& operator=(const TransformModule&) = delete;

  /// Throws WorkError.
  Microsoft::WRL::ComPtr<IMFTransform> CreateTransform() const;

  /// Lets the system create the classes of the transform's property pages. Throws WorkError.
  void OfferPages(const CAUUID& pages);

 private:
  Microsoft::WRL::ComPtr<IClassFactory> ClassObject(const CLSID& clsid) const;

  HMODULE m_library = nullptr;   // null: the registered one
  std::vector<DWORD> m_offered;  // what the system calls the class objects
};
