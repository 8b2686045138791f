#include <array>
#include <type_traits>

#include "transformtest.h"

using Microsoft::WRL::ComPtr;

namespace {

constexpr GUID kVideoDspClass = {
    0x51571744, 0x7FE4, 0x4FF2, {0xA4, 0x98, 0x2D, 0xC3, 0x4F, 0xF7, 0x4F, 0x1B}};

/// Stands in for the platform's video DSP: keeps its last call and answers with a result of its own.
class VideoDsp final : public IMFTransform, public IClassFactory {
 public:
  /// The operation's number and its arguments; 0 when there was none.
  using Call = std::array<std::uint64_t, 5>;
  Call lastCall = {};
  ULONG references = 0;

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    *object = nullptr;
    if (iid == __uuidof(IMFTransform)) *object = static_cast<IMFTransform*>(this);
    if (iid == __uuidof(IUnknown) || iid == __uuidof(IClassFactory))
      *object = static_cast<IClassFactory*>(this);
    if (!*object) return E_NOINTERFACE;
    AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++references; }
  STDMETHODIMP_(ULONG) Release() override { return --references; }

  STDMETHODIMP CreateInstance(IUnknown* outer, REFIID iid, void** object) override {
    return outer ? CLASS_E_NOAGGREGATION : QueryInterface(iid, object);
  }
  STDMETHODIMP LockServer(BOOL) override { return S_OK; }

  STDMETHODIMP GetStreamLimits(DWORD* a, DWORD* b, DWORD* c, DWORD* d) override {
    return Keep(1, a, b, c, d);
  }
  STDMETHODIMP GetStreamCount(DWORD* a, DWORD* b) override { return Keep(2, a, b); }
  STDMETHODIMP GetStreamIDs(DWORD a, DWORD* b, DWORD c, DWORD* d) override { return Keep(3, a, b, c, d); }
  STDMETHODIMP GetInputStreamInfo(DWORD a, MFT_INPUT_STREAM_INFO* b) override { return Keep(4, a, b); }
  STDMETHODIMP GetOutputStreamInfo(DWORD a, MFT_OUTPUT_STREAM_INFO* b) override { return Keep(5, a, b); }
  STDMETHODIMP GetAttributes(IMFAttributes** a) override { return Keep(6, a); }
  STDMETHODIMP GetInputStreamAttributes(DWORD a, IMFAttributes** b) override { return Keep(7, a, b); }
  STDMETHODIMP GetOutputStreamAttributes(DWORD a, IMFAttributes** b) override { return Keep(8, a, b); }
  STDMETHODIMP DeleteInputStream(DWORD a) override { return Keep(9, a); }
  STDMETHODIMP AddInputStreams(DWORD a, DWORD* b) override { return Keep(10, a, b); }
  STDMETHODIMP GetInputAvailableType(DWORD a, DWORD b, IMFMediaType** c) override {
    return Keep(11, a, b, c);
  }
  STDMETHODIMP GetOutputAvailableType(DWORD a, DWORD b, IMFMediaType** c) override {
    return Keep(12, a, b, c);
  }
  STDMETHODIMP SetInputType(DWORD a, IMFMediaType* b, DWORD c) override { return Keep(13, a, b, c); }
  STDMETHODIMP SetOutputType(DWORD a, IMFMediaType* b, DWORD c) override { return Keep(14, a, b, c); }
  STDMETHODIMP GetInputCurrentType(DWORD a, IMFMediaType** b) override { return Keep(15, a, b); }
  STDMETHODIMP GetOutputCurrentType(DWORD a, IMFMediaType** b) override { return Keep(16, a, b); }
  STDMETHODIMP GetInputStatus(DWORD a, DWORD* b) override { return Keep(17, a, b); }
  STDMETHODIMP GetOutputStatus(DWORD* a) override { return Keep(18, a); }
  STDMETHODIMP SetOutputBounds(LONGLONG a, LONGLONG b) override { return Keep(19, a, b); }
  STDMETHODIMP ProcessEvent(DWORD a, IMFMediaEvent* b) override { return Keep(20, a, b); }
  STDMETHODIMP ProcessMessage(MFT_MESSAGE_TYPE a, ULONG_PTR b) override { return Keep(21, a, b); }
  STDMETHODIMP ProcessInput(DWORD a, IMFSample* b, DWORD c) override { return Keep(22, a, b, c); }
  STDMETHODIMP ProcessOutput(DWORD a, DWORD b, MFT_OUTPUT_DATA_BUFFER* c, DWORD* d) override {
    return Keep(23, a, b, c, d);
  }

 private:
  template <class... Arguments>
  HRESULT Keep(std::uint64_t operation, Arguments... arguments) {
    lastCall = {operation, AsNumber(arguments)...};
    return static_cast<HRESULT>(0x12340000 + operation);
  }
  template <class Argument>
  static std::uint64_t AsNumber(Argument argument) {
    if constexpr (std::is_pointer_v<Argument>)
      return reinterpret_cast<std::uint64_t>(argument);
    else
      return static_cast<std::uint64_t>(argument);
  }
};

/// The platform has a video DSP while this lives.
class InstalledVideoDsp {
 protected:
  InstalledVideoDsp() {
    EXPECT_EQ(CoRegisterClassObject(kVideoDspClass, static_cast<IClassFactory*>(&m_dsp), CLSCTX_INPROC_SERVER,
                                    REGCLS_MULTIPLEUSE, &m_registration),
              S_OK);
  }
  ~InstalledVideoDsp() {
    CoRevokeClassObject(m_registration);
    EXPECT_EQ(m_dsp.references, 0U);
  }

  VideoDsp m_dsp;
  DWORD m_registration = 0;
};

class AdvancedEngine : public InstalledVideoDsp, public Transform {
 protected:
  /// Makes one call of the transform and the same of the video DSP.
  template <class Result, class... Parameters, class... Arguments>
  void ExpectForwarded(Result (STDMETHODCALLTYPE IMFTransform::*operation)(Parameters...),
                       Arguments... arguments) {
    m_dsp.lastCall = {};
    const HRESULT result = (m_pTransform.Get()->*operation)(arguments...);
    const VideoDsp::Call call = m_dsp.lastCall;
    EXPECT_EQ(result, (static_cast<IMFTransform&>(m_dsp).*operation)(arguments...));
    EXPECT_EQ(call, m_dsp.lastCall) << "operation " << m_dsp.lastCall.front();
    m_forwarded |= 1U << call.front();
  }

  bool IsForwarding() {
    m_dsp.lastCall = {};
    DWORD flags = 0;
    m_pTransform->GetOutputStatus(&flags);
    return m_dsp.lastCall != VideoDsp::Call{};
  }

  std::uint32_t m_forwarded = 0;  ///< a bit for each operation
};

TEST_F(AdvancedEngine, GetsEveryOperationAsItIs) {
  m_pSettings->put_UseAdvancedEngine(VARIANT_TRUE);
  m_traces.clear();
  DWORD a = 0, b = 0, c = 0, d = 0;
  MFT_INPUT_STREAM_INFO input = {};
  MFT_OUTPUT_STREAM_INFO output = {};
  MFT_OUTPUT_DATA_BUFFER buffer = {};
  IMFAttributes* attributes = nullptr;
  IMFMediaType* type = nullptr;
  // Arguments that this transform would refuse are forwarded, too.
  ExpectForwarded(&IMFTransform::GetStreamLimits, nullptr, &b, &c, &d);
  ExpectForwarded(&IMFTransform::GetStreamCount, nullptr, &b);
  ExpectForwarded(&IMFTransform::GetStreamIDs, 5UL, &a, 6UL, &b);
  ExpectForwarded(&IMFTransform::GetInputStreamInfo, 7UL, &input);
  ExpectForwarded(&IMFTransform::GetOutputStreamInfo, 7UL, &output);
  ExpectForwarded(&IMFTransform::GetInputStreamAttributes, 7UL, &attributes);
  ExpectForwarded(&IMFTransform::GetOutputStreamAttributes, 7UL, &attributes);
  ExpectForwarded(&IMFTransform::DeleteInputStream, 7UL);
  ExpectForwarded(&IMFTransform::AddInputStreams, 7UL, &a);
  ExpectForwarded(&IMFTransform::GetInputAvailableType, 7UL, 8UL, &type);
  ExpectForwarded(&IMFTransform::GetOutputAvailableType, 7UL, 8UL, &type);
  ExpectForwarded(&IMFTransform::SetInputType, 3UL, VideoType(kWidth, kHeight).Get(), 4UL);
  ExpectForwarded(&IMFTransform::SetOutputType, 3UL, VideoType(kWidth, kHeight).Get(), 4UL);
  ExpectForwarded(&IMFTransform::GetInputCurrentType, 7UL, &type);
  ExpectForwarded(&IMFTransform::GetOutputCurrentType, 7UL, &type);
  ExpectForwarded(&IMFTransform::GetInputStatus, 7UL, &a);
  ExpectForwarded(&IMFTransform::GetOutputStatus, &a);
  ExpectForwarded(&IMFTransform::SetOutputBounds, -9LL, 9LL);
  ExpectForwarded(&IMFTransform::ProcessEvent, 7UL, nullptr);
  ExpectForwarded(&IMFTransform::ProcessMessage, MFT_MESSAGE_SET_D3D_MANAGER, ULONG_PTR{9});
  ExpectForwarded(&IMFTransform::ProcessInput, 3UL, Sample(1).Get(), 4UL);
  ExpectForwarded(&IMFTransform::ProcessOutput, 1UL, 2UL, &buffer, nullptr);

  constexpr std::uint32_t kAll = (1U << 24) - 2, kGetAttributes = 1U << 6;
  EXPECT_EQ(m_forwarded, kAll & ~kGetAttributes);
  m_dsp.lastCall = {};
  EXPECT_EQ(m_pTransform->GetAttributes(&attributes), E_NOTIMPL);
  EXPECT_EQ(m_dsp.lastCall, VideoDsp::Call{}) << "that is never forwarded";
  EXPECT_TRUE(m_traces.empty());
}

TEST_F(AdvancedEngine, IsUsedOnlyWhenThereIsOneAndItIsChosen) {
  VARIANT_BOOL flag = 77;
  m_pSettings->get_AdvancedEngineAvailable(&flag);
  EXPECT_EQ(flag, VARIANT_TRUE);
  EXPECT_FALSE(IsForwarding()) << "nobody chose it yet";
  // A script's 1 counts as true. The getter then answers VARIANT_TRUE.
  for (const VARIANT_BOOL chosen : {VARIANT_BOOL{VARIANT_TRUE}, VARIANT_BOOL{1}}) {
    m_pSettings->put_UseAdvancedEngine(VARIANT_FALSE);
    EXPECT_FALSE(IsForwarding());
    m_pSettings->put_UseAdvancedEngine(chosen);
    m_pSettings->get_UseAdvancedEngine(&flag);
    EXPECT_EQ(flag, VARIANT_TRUE);
    EXPECT_TRUE(IsForwarding());
  }
  auto* const facade = static_cast<CVKVStabilizeImpl*>(m_pSettings.Get());
  facade->SetAdvancedEngineAvailable(false);
  EXPECT_FALSE(IsForwarding());
  facade->Attributes()->SetUINT32(VKVSTAB_ATTR_ADVANCED_ENGINE_AVAILABLE, 2);
  EXPECT_TRUE(IsForwarding()) << "any stored number but 0 reads true";
  facade->Attributes()->DeleteItem(VKVSTAB_ATTR_USE_ADVANCED_ENGINE);
  EXPECT_FALSE(IsForwarding());
}

/// Saves settings that choose the engine and say whether it is available.
void SaveAdvancedEngine(bool available) {
  ComPtr<CVKVStabilizeImpl> facade;
  *facade.GetAddressOf() = new CVKVStabilizeImpl(nullptr);
  facade->SetAdvancedEngineAvailable(available);
  facade->put_UseAdvancedEngine(VARIANT_TRUE);
  EXPECT_EQ(facade->SaveAttributes(), S_OK);
}

TEST_F(AdvancedEngine, IsTakenFromSavedSettings) {
  SaveAdvancedEngine(false);
  ASSERT_EQ(CMFTVStabilize::CreateInstance(nullptr, IID_PPV_ARGS(m_pTransform.ReleaseAndGetAddressOf())),
            S_OK);
  EXPECT_TRUE(IsForwarding());
}

TEST_F(Transform, ForwardsNothingToAnEngineThatDoesNotExist) {
  SaveAdvancedEngine(true);
  ASSERT_EQ(m_pSettings->LoadAttributes(), S_OK);
  SetTypes();
  EXPECT_EQ(Feed(1), MF_E_TRANSFORM_NEED_MORE_INPUT);

  // A new transform corrects what the settings say.
  ComPtr<IVKFVStabilize> fresh;
  VARIANT_BOOL isAvailable = VARIANT_TRUE, isUsed = VARIANT_TRUE;
  ASSERT_EQ(CMFTVStabilize::CreateInstance(nullptr, IID_PPV_ARGS(&fresh)), S_OK);
  fresh->get_AdvancedEngineAvailable(&isAvailable);
  fresh->get_UseAdvancedEngine(&isUsed);
  EXPECT_EQ(isAvailable, VARIANT_FALSE);
  EXPECT_EQ(isUsed, VARIANT_FALSE);
}

}  // namespace
