#pragma once

#include <windows.h>

#include <gtest/gtest.h>
#include <mfapi.h>
#include <string>
#include <vector>
#include <wrl/client.h>

#include "common/debugreport.h"
#include "engine/replaced.h"
#include "engine/settingskeys.h"
#include "engine/vkvstabilizeimpl.h"

extern "C" {
extern decltype(&GetModuleFileNameA) __imp_GetModuleFileNameA;
extern decltype(&MessageBoxA) __imp_MessageBoxA;
extern decltype(&MFTRegister) __imp_MFTRegister;
extern decltype(&RegCreateKeyExA) __imp_RegCreateKeyExA;
extern decltype(&RegSetValueExA) __imp_RegSetValueExA;
}

/// Each case starts without saved settings and must free its memory. Failed assertions and traces are
/// collected.
class EngineTest : public ::testing::Test {
 protected:
  EngineTest();
  ~EngineTest() override;

  /// The number of live allocations, without the platform's own.
  static long LiveAllocations();

  static Microsoft::WRL::ComPtr<CVKVStabilizeImpl> MakeFacade(
      VKVStabilizeImplCB* callback = nullptr, MyAttributes::CreateFunction create = MFCreateAttributes);

  static constexpr char kKeyName[] = "SOFTWARE\\Varkon Systems, Inc.\\MF\\Transforms\\VStabilize";

  std::vector<std::string> m_assertions;
  std::vector<std::string> m_traces;

 private:
  long m_allocations = 0;
};

/// A facade, and a transform that counts the facade's calls.
class FacadeTest : public EngineTest {
 protected:
  struct Transform : VKVStabilizeImplCB {
    HRESULT STDMETHODCALLTYPE OutputChanged() override {
      ++calls;
      return E_FAIL;  // of no interest to the facade
    }
    int calls = 0;
  };

  UINT32 Item(const GUID& key) const {
    UINT32 value = 0xDEAD;
    m_pFacade->Attributes()->GetUINT32(key, &value);
    return value;
  }

  Transform m_transform;
  Microsoft::WRL::ComPtr<CVKVStabilizeImpl> m_pFacade = MakeFacade(&m_transform);
};

/// While the object lives, allocations of `smallest` … `largest` bytes fail.
class FailingAllocations {
 public:
  explicit FailingAllocations(std::size_t smallest, std::size_t largest = SIZE_MAX);
  ~FailingAllocations();
};
