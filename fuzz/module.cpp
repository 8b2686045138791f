// Random calls on the transform and its settings, and saved settings of any kind.

#include <windows.h>

#include <bit>
#include <gtest/gtest.h>
#include <mferror.h>
#include <optional>

#include "engine/settingskeys.h"
#include "engine/userhive.h"
#include "fuzz/target.h"
#include "kernel/frame.h"
#include "mft/mft_vstabilize.h"
#include "module/hostbuffer.h"
#include "module/samples.h"

using Microsoft::WRL::ComPtr;

namespace {

std::int32_t AnyNumber(Choices& choices) {
  return choices.Once(4) ? choices.Number(-32768, 32767) * 65536 + choices.Number(0, 65535)
                         : choices.Number(-4, 130);
}

/// Most items are numbers as they should be; then the whole may be damaged, or be no blob at all.
void SaveAnySettings(Choices& choices) {
  ComPtr<IMFAttributes> items;
  UINT32 size = 0;
  Require(MFCreateAttributes(&items, 18) == S_OK, "there are attributes");
  for (const SettingDefault& setting : kSettingDefaults) {
    const std::uint32_t kind = choices.Byte() % 16;
    if (kind == 0) items->SetString(setting.key, L"1");
    if (kind == 1) items->SetUINT64(setting.key, choices.Byte());
    if (kind > 2) items->SetUINT32(setting.key, std::bit_cast<UINT32>(AnyNumber(choices)));
  }
  Require(MFGetAttributesAsBlobSize(items.Get(), &size) == S_OK, "attributes have a size");
  Bytes blob(size);
  Require(MFGetAttributesAsBlob(items.Get(), blob.data(), size) == S_OK, "attributes are a blob");
  if (choices.Once(3)) choices.Damage(blob, 8);
  if (choices.Once(8)) blob.resize(static_cast<std::size_t>(choices.Number(0, 65535)));
  const DWORD type = choices.Once(8) ? REG_SZ : REG_BINARY;
  RegSetKeyValueA(HKEY_CURRENT_USER, "SOFTWARE\\Varkon Systems, Inc.\\MF\\Transforms\\VStabilize",
                  "Attributes", type, blob.data(), static_cast<DWORD>(blob.size()));
}

class Host {
 public:
  explicit Host(Choices& choices) : m_choices(choices) {
    Require(CMFTVStabilize::CreateInstance(nullptr, IID_PPV_ARGS(&m_pTransform)) == S_OK, "it is made");
    Require(m_pTransform.As(&m_pSettings) == S_OK, "it has settings");
    SetTypes();
  }

  void Act() {
    const std::uint32_t what = m_choices.Byte() % 16;
    const DWORD stream = m_choices.Once(8) ? m_choices.Byte() : 0;
    if (what < 8) Process(stream);
    if (what == 8) SetTypes();
    if (what == 9) m_pTransform->ProcessMessage(std::bit_cast<MFT_MESSAGE_TYPE>(m_choices.Byte() << 28), 0);
    if (what == 10) m_pTransform->ProcessMessage(MFT_MESSAGE_NOTIFY_END_OF_STREAM, 0);
    if (what == 11) SaveAnySettings(m_choices), m_pSettings->LoadAttributes();
    if (what == 12) m_pTransform->SetOutputType(stream, nullptr, m_choices.Byte() % 3);
    if (what > 12) Invoke();
    CheckState();
  }

 private:
  void SetTypes() {
    m_size = {m_choices.OneOf({1, 2, 17, 64, 101}), m_choices.OneOf({1, 2, 13, 30, 48, -48})};
    if (m_choices.Once(16)) m_size = {AnyNumber(m_choices), AnyNumber(m_choices)};
    m_pTransform->SetInputType(0, VideoType(m_size.cx, m_size.cy).Get(), 0);
    Renegotiate();
  }

  void Renegotiate() {
    ComPtr<IMFMediaType> type;
    if (m_pTransform->GetOutputAvailableType(0, 0, &type) == S_OK)
      m_pTransform->SetOutputType(0, type.Get(), 0);
  }

  bool IsUsual() const {
    return m_size.cx > 0 && m_size.cx <= 130 && m_size.cy >= -130 && m_size.cy <= 130 && m_size.cy != 0;
  }

  ComPtr<HostBuffer> Buffer(BYTE fill) {
    const std::int64_t whole = IsUsual() ? FrameGeometry(m_size.cx, std::abs(m_size.cy)).SizeBytes() : 64;
    ComPtr<HostBuffer> buffer;
    *buffer.GetAddressOf() =
        new HostBuffer(static_cast<std::size_t>(whole - m_choices.Once(32)),
                       m_choices.Once(2) ? HostBuffer::Guard::Begin : HostBuffer::Guard::End, fill);
    return buffer;
  }

  void Process(DWORD stream) {
    const auto fill = static_cast<BYTE>(m_choices.Byte());
    const ComPtr<HostBuffer> input = Buffer(fill), output = Buffer(0);
    const ComPtr<IMFSample> source = SampleOver(input.Get()), sample = SampleOver(output.Get());
    MFT_OUTPUT_DATA_BUFFER buffer = {0, sample.Get(), 0, nullptr};
    DWORD status = 0;
    m_pTransform->ProcessInput(stream, source.Get(), 0);
    HRESULT hr = m_pTransform->ProcessOutput(0, 1, &buffer, &status);
    if (hr == MF_E_TRANSFORM_STREAM_CHANGE) {
      Renegotiate();
      hr = m_pTransform->ProcessOutput(0, 1, &buffer, &status);
    }
    for (const BYTE byte : Content(source.Get())) Require(byte == fill, "the input stays as it is");
  }

  /// Calls any member with any argument.
  void Invoke() {
    VARIANT argument = {}, result = {};
    argument.vt = m_choices.OneOf({VT_I4, VT_I4, VT_BOOL, VT_I2, VT_R4, VT_DISPATCH, VT_EMPTY});
    if (argument.vt != VT_DISPATCH) argument.lVal = AnyNumber(m_choices);
    DISPID put = DISPID_PROPERTYPUT;
    const auto kind = m_choices.OneOf<WORD>(
        {DISPATCH_PROPERTYPUT, DISPATCH_PROPERTYPUT, DISPATCH_PROPERTYGET, DISPATCH_METHOD});
    const bool isPut = kind == DISPATCH_PROPERTYPUT;
    DISPPARAMS arguments = {&argument, isPut ? &put : nullptr, isPut ? 1U : 0U, isPut ? 1U : 0U};
    m_pSettings->Invoke(m_choices.Number(0, 24), IID_NULL, 0x409, kind, &arguments, &result, nullptr,
                        nullptr);
  }

  void CheckState() {
    DWORD accepts = 9, isReady = 9;
    m_pTransform->GetInputStatus(0, &accepts);
    m_pTransform->GetOutputStatus(&isReady);
    Require(accepts + isReady == 1, "it accepts a frame, or has one");
    VARIANT_BOOL flags[3] = {};
    m_pSettings->get_Enabled(&flags[0]);
    m_pSettings->get_CropEnabled(&flags[1]);
    m_pSettings->get_UseAdvancedEngine(&flags[2]);
    for (const VARIANT_BOOL flag : flags)
      Require(flag == VARIANT_TRUE || flag == VARIANT_FALSE, "a flag is a flag");
    ComPtr<IMFMediaType> type;
    if (!IsUsual() || m_pTransform->GetOutputAvailableType(0, 0, &type) != S_OK) return;
    const SIZE size = ReadFrameSize(type.Get()).value_or(SIZE{});
    Require(size.cx > 0 && size.cx <= m_size.cx && size.cy != 0 && std::abs(size.cy) <= std::abs(m_size.cy),
            "cropped frames are no larger than those that come in");
  }

  Choices& m_choices;
  SIZE m_size = {};
  ComPtr<IMFTransform> m_pTransform;
  ComPtr<IVKFVStabilize> m_pSettings;
};

}  // namespace

void Live(Choices& choices) {
  static const UserHive hive;
  static const bool isReady = [] {
    GTEST_FLAG_SET(break_on_failure, true);
    return CoInitializeEx(nullptr, COINIT_MULTITHREADED) == S_OK &&
           MFStartup(MF_VERSION, MFSTARTUP_LITE) == S_OK;
  }();
  Require(isReady, "the platform starts");
  SaveAnySettings(choices);
  {
    Host host(choices);
    while (choices.AreLeft()) host.Act();
  }
  Require(MediaFoundationSamples::LiveObjects::Count() == 0, "nothing is left");
}
