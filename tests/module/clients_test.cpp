#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <mfidl.h>
#include <mfreadwrite.h>
#include <string>
#include <utility>
#include <vector>

#include "common/module.h"
#include "common/refcounted.h"
#include "embedding.cpp"
#include "engine/stabilizersettings.h"
#include "host/transformstabilizer.h"
#include "kernel/stabilizevideokernel.h"
#include "module/samples.h"
#include "scenes/scene.h"
#include "support/choices.h"
#include "support/params.h"

// The module as others use it: nothing here is linked to it.

namespace {

class Platform : public ::testing::Environment {
 public:
  void SetUp() override {
    ASSERT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
    ASSERT_EQ(MFStartup(MF_VERSION, MFSTARTUP_FULL), S_OK);
  }
  void TearDown() override {
    MFShutdown();
    CoUninitialize();
  }
};

const ::testing::Environment* const g_pPlatform = ::testing::AddGlobalTestEnvironment(new Platform);

struct TimedFrame {
  Bytes pixels;
  LONGLONG time = 0;
  bool operator==(const TimedFrame&) const = default;
};
using Clip = std::vector<TimedFrame>;

TimedFrame Timed(IMFSample* sample) {
  TimedFrame frame = {Content(sample)};
  EXPECT_EQ(sample->GetSampleTime(&frame.time), S_OK);
  return frame;
}

constexpr std::int32_t kWidth = 101, kHeight = 90;

Clip ShakyClip(int frames) {
  const Scene scene({kWidth, kHeight}, 24);
  Clip clip;
  for (int i = 0; i < frames; ++i) clip.push_back({scene.Shoot(ShakyPose(i)), i * LONGLONG{333333}});
  return clip;
}

/// What the kernel makes of a clip: as many frames, each with the time it came with.
Clip ThroughKernel(const KernelParams& params, const Clip& clip) {
  CStabilizeVideoKernel kernel;
  EXPECT_TRUE(kernel.Initialize(params));
  Clip stabilized;
  for (std::size_t i = 0; stabilized.size() < clip.size(); ++i) {
    Bytes frame = clip[std::min(i, clip.size() - 1)].pixels;
    bool noOutput = false;
    EXPECT_TRUE(kernel.ProcessFrame(frame.data(), false, &noOutput));
    if (!noOutput) stabilized.push_back({frame, clip[stabilized.size()].time});
  }
  return stabilized;
}

auto AppendTo(Clip& clip) {
  return [&clip](IMFSample* frame) { clip.push_back(Timed(frame)); };
}

/// Feeds `frame` and appends what comes out.
void Feed(StabilizedStream& stream, const TimedFrame& frame, Clip& stabilized) {
  const ComPtr<IMFSample> input = Sample(frame.pixels);
  input->SetSampleTime(frame.time);
  ComPtr<IMFSample> output;
  const HRESULT hr = stream.Process(input.Get(), &output);
  ASSERT_EQ(hr, output ? S_OK : S_FALSE);
  if (output) AppendTo(stabilized)(output.Get());
}

ComPtr<IMFTransform> LoadWithWindow(vkvstab_PathSmoothingLevel window) {
  ComPtr<IMFTransform> transform;
  ComPtr<IVKFVStabilize> settings;
  EXPECT_EQ(LoadStabilizer(&transform), S_OK);
  EXPECT_EQ(transform.As(&settings), S_OK);
  EXPECT_EQ(settings->ResetToDefaults(), S_OK);
  EXPECT_EQ(settings->put_PathSmoothingLevel(window), S_OK);
  return transform;
}

TEST(EmbeddingGuide, GivesEveryFrameOfAStreamWithItsTime) {
  ComPtr<IMFTransform> transform;
  ASSERT_EQ(LoadStabilizer(&transform), S_OK);
  ASSERT_EQ(Configure(transform.Get()), S_OK);
  KernelParams params = DefaultParams(kWidth, kHeight);
  params.windowLength = 16;
  params.estimationCoefficients = 1;
  params.clippingOption = 2;
  params.cropMarginX = 16;
  params.cropMarginY = 12;

  // A second stream through the same transform, and one shorter than the delay.
  for (const int frames : {25, 20, 3}) {
    const Clip clip = ShakyClip(frames);
    Clip stabilized;
    StabilizedStream stream;
    ASSERT_EQ(stream.Start(transform.Get(), VideoType(kWidth, kHeight).Get()), S_OK);
    for (const TimedFrame& frame : clip) Feed(stream, frame, stabilized);
    EXPECT_EQ(stabilized.size(), frames > 8 ? clip.size() - 8 : 0);
    ASSERT_EQ(stream.Finish(AppendTo(stabilized)), S_OK);
    EXPECT_TRUE(stabilized == ThroughKernel(params, clip)) << frames << " frames";
  }
}

StabilizerSettings AnySettings(Choices& choices) {
  const std::int32_t edge = choices.Number(30, 149);  // right and bottom are one setting
  StabilizerSettings settings = {.Enabled = !choices.Once(8),
                                 .ROI = {choices.Number(0, 39), choices.Number(0, 39), edge, edge},
                                 .ROIEnabled = choices.Once(2),
                                 .GlobalEstimationCoefficients = choices.Number(0, 1),
                                 .GlobalEstimationQuality = choices.Number(0, 3),
                                 .PathSmoothingLevel = choices.OneOf({4, 8}),
                                 .LeftRightCropMargin = choices.Number(0, 19),
                                 .TopBottomCropMargin = choices.Number(0, 19),
                                 .CropEnabled = !choices.Once(3),
                                 .InterpolationType = choices.Number(0, 1),
                                 .ClippingOption = choices.Number(0, 2)};
  for (std::uint8_t& colour : settings.BkFillColor) colour = static_cast<std::uint8_t>(choices.Byte());
  return settings;
}

TEST(EmbeddingGuide, FollowsAnyChangesInMidStream) {
  constexpr FrameSize kSize = {kWidth, kHeight};
  const ComPtr<IMFTransform> transform = LoadWithWindow(vkvstab_PATHSMOOTHINGLEVEL_1);
  const Clip clip = ShakyClip(800);
  StabilizedStream stream;
  ASSERT_EQ(stream.Start(transform.Get(), VideoType(kWidth, kHeight).Get()), S_OK);
  Choices choices(1);
  for (auto next = clip.begin(); clip.end() - next >= 24;) {
    const StabilizerSettings settings = AnySettings(choices);
    ConfigureTransform(transform.Get(), settings);
    const Clip part(next, next + choices.Number(1, 24));
    next += std::ssize(part);
    Clip expected = settings.Enabled ? ThroughKernel(MakeKernelParams(settings, kSize), part) : part;
    Clip stabilized;
    for (const TimedFrame& frame : part) Feed(stream, frame, stabilized);
    const std::ptrdiff_t inside = settings.Enabled ? settings.PathSmoothingLevel / 2 : 0;
    if (choices.Once(4)) {
      ASSERT_EQ(stream.Finish(AppendTo(stabilized)), S_OK);
    } else {  // the next change drops the frames inside
      expected.resize(static_cast<std::size_t>(std::max(std::ssize(part) - inside, std::ptrdiff_t{0})));
    }
    ASSERT_TRUE(stabilized == expected) << "from " << part.front().time;
    if (!ChangesFrameSize(settings)) continue;
    EXPECT_EQ(stream.Width(), static_cast<UINT32>(GetOutputSize(settings, kSize).width));
    EXPECT_EQ(stream.Height(), static_cast<UINT32>(GetOutputSize(settings, kSize).height));
  }
}

TEST(EmbeddingGuide, TellsTheRowsOfEveryWidth) {
  for (std::int32_t width = 1; width <= 16; ++width) {
    const auto pitch = [&](vkvstab_enumClippingOption clipping) {
      return std::ptrdiff_t{RowPitch(static_cast<UINT32>(width), clipping)};
    };
    EXPECT_EQ(pitch(vkvstab_CLIPPINGOPTIONS_OUTLINE), FrameGeometry(width, 1).strideBytes) << width;
    EXPECT_EQ(pitch(vkvstab_CLIPPINGOPTIONS_CROP), PackedCropPitch(width)) << width;
  }
}

// Other programs, through the registration

std::string Quoted(const std::filesystem::path& path) {
  return '"' + std::filesystem::path(path).make_preferred().string() + '"';
}

std::filesystem::path BesideProgram(const char* name) {
  std::string program;
  EXPECT_EQ(GetModulePath(nullptr, &program), S_OK);
  return std::filesystem::path(program).parent_path() / name;
}

/// Runs a command line to its end and gives what it printed.
std::string Printed(const std::string& line) {
  std::FILE* const pipe = _popen(('"' + line + '"').c_str(), "rb");
  std::string text;
  for (int byte = std::fgetc(pipe); byte != EOF; byte = std::fgetc(pipe)) text += static_cast<char>(byte);
  _pclose(pipe);
  return text;
}

/// The module registered for the whole system, by the system's own program, with no settings saved. Test
/// programs of other checkouts share this registry.
class RegisteredModule : public ::testing::Test {
 protected:
  RegisteredModule() {
    WaitForSingleObject(m_exclusive, INFINITE);
    RegDeleteTreeA(HKEY_CLASSES_ROOT, "CLSID\\{E2B6EDDE-38C5-11D5-91F6-00104BDB8FF9}");
    RegDeleteTreeA(HKEY_CURRENT_USER, kSettingsKey);
    Printed("regsvr32 /s " + Quoted(m_module));
  }
  ~RegisteredModule() override {
    Printed("regsvr32 /u /s " + Quoted(m_module));
    RegDeleteTreeA(HKEY_CURRENT_USER, kSettingsKey);
    ReleaseMutex(m_exclusive);
    CloseHandle(m_exclusive);
  }

  static constexpr char kSettingsKey[] = "SOFTWARE\\Varkon Systems, Inc.\\MF\\Transforms\\VStabilize";
  const HANDLE m_exclusive = CreateMutexA(nullptr, FALSE, "VStabilizeRegistration");
  const std::filesystem::path m_module = BesideProgram("vkfvstabilize.dll");
};

TEST_F(RegisteredModule, IsFoundWhileItIsRegistered) {
  ComPtr<IMFTransform> transform;
  EXPECT_EQ(CreateRegisteredStabilizer(&transform), S_OK);
  Printed("regsvr32 /u /s " + Quoted(m_module));
  EXPECT_EQ(CreateRegisteredStabilizer(transform.ReleaseAndGetAddressOf()), REGDB_E_CLASSNOTREG);
}

TEST_F(RegisteredModule, ServesTheGuidesScriptAndTheCommand) {
  const std::string script = "cscript //nologo " + Quoted(VSTABILIZE_SCRIPT);
  EXPECT_EQ(Printed(script), "Smooths over 32 frames.\r\nSmooths over 64 frames from now on.\r\n");
  EXPECT_EQ(Printed(script), "Smooths over 64 frames.\r\nSmooths over 64 frames from now on.\r\n");

  const Bytes clip = RandomBytes(std::size_t{101} * 90 * 3 * 11, 1);
  const std::filesystem::path input = BesideProgram("clients_input");
  std::ofstream(input, std::ios::binary)
      .write(reinterpret_cast<const char*>(clip.data()), static_cast<std::streamsize>(clip.size()));
  const auto stabilized = [&](const char* engine) {
    return Printed(Quoted(BesideProgram("vstabilize.exe")) +
                   " --size 101x90 --window 4 --crop 12,7 --clip crop --quality 1 --quiet " + engine + " <" +
                   Quoted(input));
  };
  const std::string registered = stabilized("--registered");
  EXPECT_FALSE(registered.empty());
  EXPECT_TRUE(registered == stabilized("--engine kernel"));
  std::filesystem::remove(input);
}

/// Keeps the frames that a media session plays.
class FrameCollector final : public CRefCounted<IMFSampleGrabberSinkCallback> {
 public:
  Clip frames;

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    const bool isOurs = iid == __uuidof(IUnknown) || iid == __uuidof(IMFClockStateSink) ||
                        iid == __uuidof(IMFSampleGrabberSinkCallback);
    *object = isOurs ? this : nullptr;
    if (isOurs) AddRef();
    return isOurs ? S_OK : E_NOINTERFACE;
  }
  STDMETHODIMP OnProcessSample(REFGUID, DWORD, LONGLONG time, LONGLONG, const BYTE* pixels,
                               DWORD size) override {
    frames.push_back({Bytes(pixels, pixels + size), time});
    return S_OK;
  }
  STDMETHODIMP OnClockStart(MFTIME, LONGLONG) override { return S_OK; }
  STDMETHODIMP OnClockStop(MFTIME) override { return S_OK; }
  STDMETHODIMP OnClockPause(MFTIME) override { return S_OK; }
  STDMETHODIMP OnClockRestart(MFTIME) override { return S_OK; }
  STDMETHODIMP OnClockSetRate(MFTIME, float) override { return S_OK; }
  STDMETHODIMP OnSetPresentationClock(IMFPresentationClock*) override { return S_OK; }
  STDMETHODIMP OnShutdown() override { return S_OK; }
};

/// The video of `source` through the transform to the collector. The system's topology loader adds a decoder
/// and a colour converter.
ComPtr<IMFTopology> MakeTopology(IMFMediaSource* source, IMFTransform* transform, FrameCollector* collector) {
  ComPtr<IMFPresentationDescriptor> presentation;
  ComPtr<IMFStreamDescriptor> stream;
  ComPtr<IMFActivate> sink;
  ComPtr<IMFTopology> topology;
  BOOL isSelected = FALSE;
  EXPECT_EQ(source->CreatePresentationDescriptor(&presentation), S_OK);
  EXPECT_EQ(presentation->GetStreamDescriptorByIndex(0, &isSelected, &stream), S_OK);
  EXPECT_EQ(MFCreateSampleGrabberSinkActivate(VideoType(160, 120).Get(), collector, &sink), S_OK);
  sink->SetUINT32(MF_SAMPLEGRABBERSINK_IGNORE_CLOCK, TRUE);
  EXPECT_EQ(MFCreateTopology(&topology), S_OK);

  const std::pair<MF_TOPOLOGY_TYPE, IUnknown*> nodes[] = {{MF_TOPOLOGY_SOURCESTREAM_NODE, nullptr},
                                                          {MF_TOPOLOGY_TRANSFORM_NODE, transform},
                                                          {MF_TOPOLOGY_OUTPUT_NODE, sink.Get()}};
  ComPtr<IMFTopologyNode> last;
  for (const auto& [type, object] : nodes) {
    ComPtr<IMFTopologyNode> node;
    EXPECT_EQ(MFCreateTopologyNode(type, &node), S_OK);
    if (object) node->SetObject(object);
    EXPECT_EQ(topology->AddNode(node.Get()), S_OK);
    EXPECT_EQ(last ? last->ConnectOutput(0, node.Get(), 0) : S_OK, S_OK);
    last = node;
  }
  ComPtr<IMFTopologyNode> first;
  EXPECT_EQ(topology->GetNode(0, &first), S_OK);
  first->SetUnknown(MF_TOPONODE_SOURCE, source);
  first->SetUnknown(MF_TOPONODE_PRESENTATION_DESCRIPTOR, presentation.Get());
  first->SetUnknown(MF_TOPONODE_STREAM_DESCRIPTOR, stream.Get());
  return topology;
}

/// Waits for an event of a session; false when an operation fails before it.
bool WaitFor(IMFMediaSession* session, MediaEventType wanted) {
  for (MediaEventType type = MEUnknown; type != wanted;) {
    ComPtr<IMFMediaEvent> event;
    HRESULT status = E_FAIL;
    if (session->GetEvent(0, &event) != S_OK || event->GetType(&type) != S_OK) return false;
    if (event->GetStatus(&status) != S_OK || FAILED(status)) return false;
  }
  return true;
}

/// Plays the test's video through the transform, as fast as it goes.
Clip Played(IMFTransform* transform) {
  ComPtr<IMFSourceResolver> resolver;
  ComPtr<IUnknown> object;
  ComPtr<IMFMediaSource> source;
  ComPtr<IMFMediaSession> session;
  ComPtr<FrameCollector> collector;
  *collector.GetAddressOf() = new FrameCollector;
  MF_OBJECT_TYPE type = MF_OBJECT_INVALID;
  PROPVARIANT fromStart = {};
  EXPECT_EQ(MFCreateSourceResolver(&resolver), S_OK);
  EXPECT_EQ(
      resolver->CreateObjectFromURL(L"" VSTABILIZE_CLIP, MF_RESOLUTION_MEDIASOURCE, nullptr, &type, &object),
      S_OK);
  EXPECT_EQ(object.As(&source), S_OK);
  EXPECT_EQ(MFCreateMediaSession(nullptr, &session), S_OK);
  EXPECT_EQ(session->SetTopology(0, MakeTopology(source.Get(), transform, collector.Get()).Get()), S_OK);
  EXPECT_TRUE(WaitFor(session.Get(), MESessionTopologySet) &&
              session->Start(&GUID_NULL, &fromStart) == S_OK && WaitFor(session.Get(), MESessionEnded));
  EXPECT_EQ(session->Close(), S_OK);
  EXPECT_TRUE(WaitFor(session.Get(), MESessionClosed));
  session->Shutdown();
  source->Shutdown();
  return collector->frames;
}

TEST(Pipeline, StabilizesWhatAReaderDecodesAndWhatASessionPlays) {
  constexpr auto kVideo = static_cast<DWORD>(MF_SOURCE_READER_FIRST_VIDEO_STREAM);
  ComPtr<IMFAttributes> attributes;
  ComPtr<IMFSourceReader> reader;
  ComPtr<IMFMediaType> type = VideoType(160, 120);
  type->SetUINT32(MF_MT_DEFAULT_STRIDE, static_cast<UINT32>(-480));  // bottom-up, as a session's frames are
  ASSERT_EQ(MFCreateAttributes(&attributes, 1), S_OK);
  attributes->SetUINT32(MF_SOURCE_READER_ENABLE_VIDEO_PROCESSING, TRUE);
  ASSERT_EQ(MFCreateSourceReaderFromURL(L"" VSTABILIZE_CLIP, attributes.Get(), &reader), S_OK);
  ASSERT_EQ(reader->SetCurrentMediaType(kVideo, nullptr, type.Get()), S_OK);
  ASSERT_EQ(reader->GetCurrentMediaType(kVideo, type.ReleaseAndGetAddressOf()), S_OK);

  const ComPtr<IMFTransform> transform = LoadWithWindow(vkvstab_PATHSMOOTHINGLEVEL_2);
  StabilizedStream stream;
  Clip clip, stabilized;
  ASSERT_EQ(stream.Start(transform.Get(), type.Get()), S_OK);
  for (DWORD index = 0, flags = 0; !(flags & MF_SOURCE_READERF_ENDOFSTREAM);) {
    ComPtr<IMFSample> sample;
    LONGLONG time = 0;
    ASSERT_EQ(reader->ReadSample(kVideo, 0, &index, &flags, &time, &sample), S_OK);
    if (!sample) continue;
    clip.push_back(Timed(sample.Get()));
    Feed(stream, clip.back(), stabilized);
  }
  ASSERT_EQ(stream.Finish(AppendTo(stabilized)), S_OK);
  ASSERT_EQ(clip.size(), 40U);
  KernelParams params = DefaultParams(160, 120);
  params.windowLength = 8;
  Clip expected = ThroughKernel(params, clip);
  EXPECT_TRUE(stabilized == expected);
  EXPECT_FALSE(stabilized == clip) << "the camera shakes";

  // Under Wine the session sets the transform's input type, but never its output type: this one stays set.
  ASSERT_EQ(transform->SetInputType(0, nullptr, 0), S_OK);
  expected.resize(36);
  EXPECT_TRUE(Played(transform.Get()) == expected) << "a session leaves the last frames inside";
}

}  // namespace
