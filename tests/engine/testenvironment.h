#pragma once

#include <windows.h>

#include <gtest/gtest.h>
#include <mfapi.h>
#include <string>
#include <vector>
#include <wrl/client.h>

#include "common/debugreport.h"
#include "engine/settingskeys.h"
#include "engine/vkvstabilizeimpl.h"

/// A transform's end of the callback.
class CallbackCounter : public VKVStabilizeImplCB {
 public:
  HRESULT STDMETHODCALLTYPE OutputChanged() override {
    ++calls;
    return E_FAIL;  // of no interest to the facade
  }
  int calls = 0;
};

/// Each case starts without saved settings and must leave nothing behind: no memory, no reference to the
/// platform's attribute store. Reports of failed assertions are kept.
class EngineTest : public ::testing::Test {
 public:
  /// Makes the platform's store and remembers it.
  static HRESULT STDAPICALLTYPE CreateAttributes(IMFAttributes** attributes, UINT32 initialSize);
  /// Lets HKEY_CURRENT_USER be a key of this process's own.
  static void UseTestHive();

 protected:
  EngineTest();
  ~EngineTest() override;

  /// How many pieces of memory are in use, not counting the platform's.
  static long LiveAllocations();

  /// A facade whose store is watched; null callback unless given.
  Microsoft::WRL::ComPtr<CVKVStabilizeImpl> MakeFacade(VKVStabilizeImplCB* callback = nullptr);

  static constexpr char kKeyName[] = "SOFTWARE\\Varkon Systems, Inc.\\MF\\Transforms\\VStabilize";

  std::vector<std::string> m_assertions;
  std::vector<std::string> m_traces;

 private:
  long m_allocations = 0;
};

/// While the object lives, allocations of `smallest` … `largest` bytes fail.
class FailingAllocations {
 public:
  explicit FailingAllocations(std::size_t smallest, std::size_t largest = SIZE_MAX);
  ~FailingAllocations();
};
