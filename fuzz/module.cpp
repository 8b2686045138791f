// Random calls on the transform and its settings, and saved settings of any kind.

#include <windows.h>

#include <bit>
#include <cstdlib>
#include <gtest/gtest.h>
#include <mferror.h>

#include "engine/settingskeys.h"
#include "engine/userhive.h"
#include "fuzz/target.h"
#include "kernel/frame.h"
#include "mft/mft_vstabilize.h"
#include "module/hostbuffer.h"
#include "module/samples.h"

using Microsoft::WRL::ComPtr;

namespace {

/// Most often a valid setting, else a number like a side of a frame, else any 32-bit number.
std::int32_t AnyNumber(Choices& choices) {
  if (!choices.Once(3)) return choices.OneOf({0, 1, 2, 4, 4, 8});
  if (!choices.Once(3)) return choices.Number(-4, 130);
  return choices.Number(-32768, 32767) * 65536 + choices.Number(0, 65535);
}

/// Saves settings, most of them numbers. The blob may then be damaged, or its size and type be wrong.
void SaveAnySettings(Choices& choices) {
  ComPtr<IMFAttributes> items;
  UINT32 size = 0;
  Require(MFCreateAttributes(&items, 18) == S_OK, "there are attributes");
  for (const SettingDefault& setting : kSettingDefaults) {
    if (choices.Once(16))
      items->SetString(setting.key, L"1");
    else if (!choices.Once(8))
      items->SetUINT32(setting.key, std::bit_cast<UINT32>(AnyNumber(choices)));
  }
  Require(MFGetAttributesAsBlobSize(items.Get(), &size) == S_OK, "attributes have a size");
  Bytes blob(size);
  Require(MFGetAttributesAsBlob(items.Get(), blob.data(), size) == S_OK, "attributes are a blob");
  if (choices.Once(3)) choices.Damage(blob, 8);
  if (choices.Once(8)) blob.resize(static_cast<std::size_t>(choices.Number(0, 65535)));
  RegSetKeyValueA(HKEY_CURRENT_USER, "SOFTWARE\\Varkon Systems, Inc.\\MF\\Transforms\\VStabilize",
                  "Attributes", choices.Once(8) ? REG_SZ : REG_BINARY, blob.data(),
                  static_cast<DWORD>(blob.size()));
}

/// Calls any member with any argument.
void CallAny(IDispatch* settings, Choices& choices) {
  DISPID put = DISPID_PROPERTYPUT;
  VARIANT argument = {}, result = {};
  argument.vt = choices.OneOf({VT_I4, VT_I4, VT_BOOL, VT_R4, VT_EMPTY});
  argument.lVal = AnyNumber(choices);
  const bool isPut = !choices.Once(4);
  DISPPARAMS arguments = {&argument, &put, isPut ? 1U : 0U, isPut ? 1U : 0U};
  const WORD kind = isPut ? DISPATCH_PROPERTYPUT : DISPATCH_PROPERTYGET | DISPATCH_METHOD;
  settings->Invoke(choices.Number(0, 24), IID_NULL, 0x409, kind, &arguments, &result, nullptr, nullptr);
  Require(result.vt != VT_BOOL || result.boolVal == VARIANT_TRUE || result.boolVal == VARIANT_FALSE,
          "a flag is one of two numbers");
}

void SetTypes(IMFTransform* transform, SIZE size) {
  ComPtr<IMFMediaType> type;
  transform->ProcessMessage(MFT_MESSAGE_COMMAND_FLUSH, 0);
  transform->SetInputType(0, VideoType(size.cx, size.cy).Get(), 0);
  if (transform->GetOutputAvailableType(0, 0, &type) != S_OK) return;
  transform->SetOutputType(0, type.Get(), 0);
  const SIZE output = ReadFrameSize(type.Get()).value_or(SIZE{});
  Require(output.cx > 0 && output.cx <= size.cx && output.cy != 0 && std::abs(output.cy) <= std::abs(size.cy),
          "frames do not grow");
}

void ProcessAny(IMFTransform* transform, SIZE size, Choices& choices) {
  const auto whole = static_cast<std::size_t>(FrameGeometry(size.cx, std::abs(size.cy)).SizeBytes());
  const auto guard = choices.Once(2) ? HostBuffer::Guard::Begin : HostBuffer::Guard::End;
  ComPtr<HostBuffer> input, output;
  *input.GetAddressOf() = new HostBuffer(whole - choices.Once(64), guard, 77);
  *output.GetAddressOf() = new HostBuffer(whole - choices.Once(64), guard, 0);
  const ComPtr<IMFSample> source = SampleOver(input.Get()), sample = SampleOver(output.Get());
  MFT_OUTPUT_DATA_BUFFER buffer = {0, sample.Get(), 0, nullptr};
  DWORD status = 0, accepts = 9;
  transform->ProcessInput(choices.Once(64), source.Get(), 0);
  if (transform->ProcessOutput(0, 1, &buffer, &status) == MF_E_TRANSFORM_STREAM_CHANGE)
    SetTypes(transform, size);
  transform->GetInputStatus(0, &accepts);
  transform->GetOutputStatus(&status);
  Require(accepts + status == 1, "it accepts a frame, or has one");
  for (const BYTE byte : Content(source.Get())) Require(byte == 77, "the input stays as it is");
}

}  // namespace

void Live(Choices& choices) {
  static const UserHive hive;
  static const HRESULT started = [] {
    GTEST_FLAG_SET(break_on_failure, true);
    const HRESULT hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    return SUCCEEDED(hr) ? MFStartup(MF_VERSION, MFSTARTUP_LITE) : hr;
  }();
  Require(started == S_OK, "the platform starts");
  SaveAnySettings(choices);
  ComPtr<IMFTransform> transform;
  ComPtr<IVKFVStabilize> settings;
  Require(CMFTVStabilize::CreateInstance(nullptr, IID_PPV_ARGS(&transform)) == S_OK, "it is made");
  Require(transform.As(&settings) == S_OK, "it has settings");
  SIZE size = {64, 48};
  SetTypes(transform.Get(), size);
  while (choices.AreLeft()) {
    const std::uint32_t what = choices.Byte() % 16;
    for (std::uint32_t i = what < 9 ? 1 + what : 0; i > 0; --i) ProcessAny(transform.Get(), size, choices);
    if (what == 9) size = {choices.OneOf({1, 2, 17, 64, 101}), choices.OneOf({1, 2, 13, 30, 48, -48})};
    if (what == 9) SetTypes(transform.Get(), size);
    if (what == 10) transform->ProcessMessage(std::bit_cast<MFT_MESSAGE_TYPE>(choices.Byte() << 28), 0);
    if (what == 11) transform->ProcessMessage(MFT_MESSAGE_NOTIFY_END_OF_STREAM, 0);
    if (what == 12) SaveAnySettings(choices), settings->LoadAttributes();
    if (what > 12) CallAny(settings.Get(), choices);
  }
  settings.Reset();
  transform.Reset();
  Require(MediaFoundationSamples::LiveObjects::Count() == 0, "nothing is left");
}
