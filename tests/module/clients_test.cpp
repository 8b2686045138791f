#include <windows.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <memory>
#include <mfidl.h>
#include <mfreadwrite.h>
#include <mutex>
#include <string>
#include <vector>

#include "common/module.h"
#include "common/registrykey.h"
#include "embedding.cpp"
#include "kernel/stabilizevideokernel.h"
#include "support/params.h"
#include "support/scene.h"

// The module as others use it: nothing here is linked to it.

namespace {

using Bytes = std::vector<std::uint8_t>;

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

TimedFrame Content(IMFSample* sample) {
  TimedFrame frame;
  ComPtr<IMFMediaBuffer> buffer;
  BYTE* pixels = nullptr;
  DWORD length = 0;
  EXPECT_EQ(sample->GetSampleTime(&frame.time), S_OK);
  EXPECT_EQ(sample->ConvertToContiguousBuffer(&buffer), S_OK);
  EXPECT_EQ(buffer->Lock(&pixels, nullptr, &length), S_OK);
  frame.pixels.assign(pixels, pixels + length);
  buffer->Unlock();
  return frame;
}

ComPtr<IMFSample> MakeSample(const TimedFrame& frame) {
  const auto size = static_cast<DWORD>(frame.pixels.size());
  ComPtr<IMFMediaBuffer> buffer;
  ComPtr<IMFSample> sample;
  BYTE* pixels = nullptr;
  EXPECT_EQ(MFCreateMemoryBuffer(size, &buffer), S_OK);
  EXPECT_EQ(buffer->Lock(&pixels, nullptr, nullptr), S_OK);
  std::copy(frame.pixels.begin(), frame.pixels.end(), pixels);
  buffer->Unlock();
  buffer->SetCurrentLength(size);
  EXPECT_EQ(MFCreateSample(&sample), S_OK);
  sample->AddBuffer(buffer.Get());
  sample->SetSampleTime(frame.time);
  return sample;
}

ComPtr<IMFMediaType> FrameType(UINT32 width, UINT32 height) {
  ComPtr<IMFMediaType> type;
  EXPECT_EQ(MFCreateMediaType(&type), S_OK);
  type->SetGUID(MF_MT_MAJOR_TYPE, MFMediaType_Video);
  type->SetGUID(MF_MT_SUBTYPE, MFVideoFormat_RGB24);
  MFSetAttributeSize(type.Get(), MF_MT_FRAME_SIZE, width, height);
  return type;
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
  return [&clip](IMFSample* frame) { clip.push_back(Content(frame)); };
}

/// Feeds `frame` and appends what comes out.
void Feed(StabilizedStream& stream, const TimedFrame& frame, Clip& stabilized) {
  ComPtr<IMFSample> output;
  const HRESULT hr = stream.Process(MakeSample(frame).Get(), &output);
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
    ASSERT_EQ(stream.Start(transform.Get(), FrameType(kWidth, kHeight).Get()), S_OK);
    for (const TimedFrame& frame : clip) Feed(stream, frame, stabilized);
    EXPECT_EQ(stabilized.size(), frames > 8 ? clip.size() - 8 : 0);
    ASSERT_EQ(stream.Finish(AppendTo(stabilized)), S_OK);
    EXPECT_TRUE(stabilized == ThroughKernel(params, clip)) << frames << " frames";
  }
}

TEST(EmbeddingGuide, FollowsChangesInMidStream) {
  const ComPtr<IMFTransform> transform = LoadWithWindow(vkvstab_PATHSMOOTHINGLEVEL_1);
  ComPtr<IVKFVStabilize> settings;
  ASSERT_EQ(transform.As(&settings), S_OK);
  StabilizedStream stream;
  ASSERT_EQ(stream.Start(transform.Get(), FrameType(kWidth, kHeight).Get()), S_OK);

  const Clip clip = ShakyClip(20);
  Clip before, after, passed;
  for (int i = 0; i < 8; ++i) Feed(stream, clip[static_cast<std::size_t>(i)], before);
  EXPECT_EQ(before.size(), 6U);
  settings->put_ClippingOption(vkvstab_CLIPPINGOPTIONS_CROP);
  settings->put_LeftRightCropMargin(4);
  settings->put_TopBottomCropMargin(7);
  settings->put_CropEnabled(VARIANT_TRUE);
  EXPECT_EQ(stream.Width(), 101U);
  for (int i = 8; i < 16; ++i) Feed(stream, clip[static_cast<std::size_t>(i)], after);
  EXPECT_EQ(stream.Width(), 93U);
  EXPECT_EQ(stream.Height(), 76U);
  KernelParams params = DefaultParams(kWidth, kHeight);
  params.windowLength = 4;
  params.clippingOption = 1;
  params.cropMarginX = 4;
  params.cropMarginY = 7;
  Clip expected = ThroughKernel(params, {clip.begin() + 8, clip.begin() + 16});
  expected.resize(6);
  EXPECT_TRUE(after == expected) << "the frames from the change on";

  settings->put_Enabled(VARIANT_FALSE);
  for (int i = 16; i < 20; ++i) Feed(stream, clip[static_cast<std::size_t>(i)], passed);
  EXPECT_TRUE(passed == Clip(clip.begin() + 16, clip.end()));
  ASSERT_EQ(stream.Finish(AppendTo(passed)), S_OK);
  EXPECT_EQ(passed.size(), 4U) << "nothing is under way";
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

struct HandleCloser {
  void operator()(void* handle) const { CloseHandle(handle); }
};
using Handle = std::unique_ptr<void, HandleCloser>;

/// A file as the standard stream of a program.
class StreamFile {
 public:
  explicit StreamFile(const char* name) : m_path(std::filesystem::temp_directory_path() / name) { Write({}); }
  ~StreamFile() { std::filesystem::remove(m_path); }
  StreamFile(const StreamFile&) = delete;
  StreamFile& operator=(const StreamFile&) = delete;

  void Write(const Bytes& content) const {
    std::ofstream(m_path, std::ios::binary)
        .write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
  }
  Bytes Read() const {
    std::ifstream file(m_path, std::ios::binary);
    return {std::istreambuf_iterator(file), {}};
  }
  /// For a child process to inherit.
  Handle Open(DWORD access, DWORD disposition) const {
    SECURITY_ATTRIBUTES inherited = {sizeof inherited, nullptr, TRUE};
    return Handle(CreateFileW(m_path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherited,
                              disposition, 0, nullptr));
  }

 private:
  std::filesystem::path m_path;
};

struct Outcome {
  DWORD code = MAXDWORD;
  Bytes output;
  std::string Text() const { return {output.begin(), output.end()}; }
};

/// Runs a command line to its end.
Outcome RunProgram(std::string line, const Bytes& input = {}) {
  const StreamFile in("clients_input"), out("clients_output");
  in.Write(input);
  Outcome outcome;
  {
    const Handle inHandle = in.Open(GENERIC_READ, OPEN_EXISTING),
                 outHandle = out.Open(GENERIC_WRITE, CREATE_ALWAYS);
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = inHandle.get();
    startup.hStdOutput = startup.hStdError = outHandle.get();
    PROCESS_INFORMATION info = {};
    if (!CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &info))
      return outcome;
    const Handle process(info.hProcess), thread(info.hThread);
    WaitForSingleObject(process.get(), INFINITE);
    GetExitCodeProcess(process.get(), &outcome.code);
  }
  outcome.output = out.Read();
  return outcome;
}

std::string Quoted(const std::filesystem::path& path) {
  return '"' + std::filesystem::path(path).make_preferred().string() + '"';
}

std::filesystem::path BesideProgram(const char* name) {
  std::string program;
  EXPECT_EQ(GetModulePath(nullptr, &program), S_OK);
  return std::filesystem::path(program).parent_path() / name;
}

/// The module registered for the whole system, by the system's own program. Registration and saved settings
/// are left as they were found.
class RegisteredModule : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    // Test programs of other checkouts share this registry.
    m_exclusive.reset(CreateMutexA(nullptr, FALSE, "VStabilizeRegistration"));
    WaitForSingleObject(m_exclusive.get(), INFINITE);
    m_registeredBefore = RegisteredServer();
    m_savedBefore = SavedSettings();
    RegDeleteTreeA(HKEY_CURRENT_USER, kSettingsKey);
    EXPECT_EQ(Register(Module()), 0U);
  }

  static void TearDownTestSuite() {
    EXPECT_EQ(Unregister(), 0U);
    if (IsFile(m_registeredBefore.c_str()) && !IsOurs(m_registeredBefore)) Register(m_registeredBefore);
    RegDeleteTreeA(HKEY_CURRENT_USER, kSettingsKey);
    if (!m_savedBefore.empty()) SaveSettings(m_savedBefore);
    ReleaseMutex(m_exclusive.get());
  }

  void SetUp() override {
    // Registering gives way to a newer copy; then there is nothing of ours to find.
    const std::string server = RegisteredServer();
    if (!IsOurs(server)) GTEST_SKIP() << "a newer copy is registered: " << server;
  }

  static std::filesystem::path Module() { return BesideProgram("vkfvstabilize.dll"); }
  static DWORD Register(const std::filesystem::path& module) {
    return RunProgram("regsvr32 /s " + Quoted(module)).code;
  }
  static DWORD Unregister() { return RunProgram("regsvr32 /u /s " + Quoted(Module())).code; }
  static bool IsOurs(const std::string& server) {
    return IsSameFile(server.c_str(), Module().string().c_str());
  }

  static std::string RegisteredServer() {
    std::array<char, MAX_PATH> path = {};
    DWORD size = path.size();
    RegGetValueA(HKEY_CLASSES_ROOT, "CLSID\\{E2B6EDDE-38C5-11D5-91F6-00104BDB8FF9}\\InprocServer32", nullptr,
                 RRF_RT_REG_SZ, nullptr, path.data(), &size);
    return path.data();
  }

  static std::vector<std::byte> SavedSettings() {
    CRegistryKey key;
    DWORD type = REG_NONE, size = 0;
    if (key.Open(HKEY_CURRENT_USER, kSettingsKey, KEY_READ) != ERROR_SUCCESS ||
        key.QueryType("Attributes", &type, &size) != ERROR_SUCCESS)
      return {};
    std::vector<std::byte> blob(size);
    key.QueryData("Attributes", blob, &size);
    return blob;
  }
  static void SaveSettings(const std::vector<std::byte>& blob) {
    CRegistryKey key;
    EXPECT_EQ(key.Create(HKEY_CURRENT_USER, kSettingsKey, KEY_WRITE), ERROR_SUCCESS);
    EXPECT_EQ(key.SetData("Attributes", REG_BINARY, blob), ERROR_SUCCESS);
  }

  /// How often `MFTEnumEx` lists the transform in a category; `made` becomes what one of these makes.
  static int CountListed(const GUID& category, ComPtr<IMFTransform>* made = nullptr) {
    IMFActivate** activates = nullptr;
    UINT32 count = 0;
    int listed = 0;
    EXPECT_EQ(MFTEnumEx(category, MFT_ENUM_FLAG_ALL, nullptr, nullptr, &activates, &count), S_OK);
    for (UINT32 i = 0; i < count; ++i) {
      ComPtr<IMFActivate> activate;
      *activate.GetAddressOf() = activates[i];
      GUID clsid = {};
      activate->GetGUID(MFT_TRANSFORM_CLSID_Attribute, &clsid);
      if (clsid != __uuidof(VKFVStabilize)) continue;
      ++listed;
      if (made) activate->ActivateObject(IID_PPV_ARGS(made->ReleaseAndGetAddressOf()));
    }
    CoTaskMemFree(activates);
    return listed;
  }

  static constexpr char kSettingsKey[] = "SOFTWARE\\Varkon Systems, Inc.\\MF\\Transforms\\VStabilize";
  static constexpr GUID kFamilyCategory = {
      0x1E6FFA21, 0x24D8, 0x4B28, {0xBF, 0xD0, 0x98, 0xD8, 0x3C, 0x69, 0x82, 0xC3}};

 private:
  static inline Handle m_exclusive;
  static inline std::string m_registeredBefore;
  static inline std::vector<std::byte> m_savedBefore;
};

TEST_F(RegisteredModule, IsFoundWhileItIsRegistered) {
  for (const GUID& category : {kFamilyCategory, MFT_CATEGORY_VIDEO_EFFECT}) {
    ComPtr<IMFTransform> transform;
    EXPECT_EQ(CountListed(category, &transform), 1);
    ASSERT_NE(transform.Get(), nullptr);
    EXPECT_EQ(Configure(transform.Get()), S_OK);
  }
  ComPtr<IMFTransform> transform;
  EXPECT_EQ(CreateRegisteredStabilizer(&transform), S_OK);

  EXPECT_EQ(Unregister(), 0U);
  EXPECT_EQ(RegisteredServer(), "");
  EXPECT_EQ(CountListed(kFamilyCategory) + CountListed(MFT_CATEGORY_VIDEO_EFFECT), 0);
  EXPECT_EQ(CreateRegisteredStabilizer(transform.ReleaseAndGetAddressOf()), REGDB_E_CLASSNOTREG);
  EXPECT_EQ(Register(Module()), 0U);
  EXPECT_EQ(CreateRegisteredStabilizer(&transform), S_OK);
}

TEST_F(RegisteredModule, ServesTheGuidesScript) {
  // The script host gives 0 for failed scripts too: what they say counts.
  const std::string line = "cscript //nologo " + Quoted(VSTABILIZE_SCRIPT);
  EXPECT_EQ(RunProgram(line).Text(), "Smooths over 32 frames.\r\nSmooths over 64 frames from now on.\r\n");
  EXPECT_EQ(RunProgram(line).Text(), "Smooths over 64 frames.\r\nSmooths over 64 frames from now on.\r\n");

  ComPtr<IMFTransform> transform;
  ComPtr<IVKFVStabilize> settings;
  ASSERT_EQ(CreateRegisteredStabilizer(&transform), S_OK);
  ASSERT_EQ(transform.As(&settings), S_OK);
  vkvstab_GlobalEstimationCoefficients coefficients = {};
  VARIANT_BOOL isCropping = VARIANT_FALSE;
  LONG margin = 0;
  OLE_COLOR color = 0;
  settings->get_GlobalEstimationCoefficients(&coefficients);
  settings->get_CropEnabled(&isCropping);
  settings->get_LeftRightCropMargin(&margin);
  settings->get_BkFillColor(&color);
  EXPECT_EQ(coefficients, vkvstab_GLOBALESTIMATIONCOEFFICIENTS_X_Y_THETA);
  EXPECT_EQ(isCropping, VARIANT_TRUE);
  EXPECT_EQ(margin, 24);
  EXPECT_EQ(color, OLE_COLOR{RGB(32, 64, 96)});
}

TEST_F(RegisteredModule, ServesTheCommand) {
  const Bytes clip = RandomBytes(std::size_t{101} * 90 * 3 * 11, 1);
  for (const char* const options :
       {"--window 8 --rotation --background 804020", "--window 4 --crop 12,7 --clip crop --quality 1"}) {
    const std::string line =
        Quoted(BesideProgram("vstabilize.exe")) + " --size 101x90 --quiet " + options + ' ';
    const Outcome registered = RunProgram(line + "--registered", clip);
    EXPECT_EQ(registered.code, 0U);
    EXPECT_FALSE(registered.output.empty());
    EXPECT_TRUE(registered.output == RunProgram(line + "--engine kernel", clip).output) << options;
  }
}

// Pipelines

/// All frames of the test's video file, as the platform decodes them, and their type.
Clip DecodedClip(ComPtr<IMFMediaType>* type) {
  constexpr auto kVideo = static_cast<DWORD>(MF_SOURCE_READER_FIRST_VIDEO_STREAM);
  ComPtr<IMFAttributes> attributes;
  ComPtr<IMFSourceReader> reader;
  EXPECT_EQ(MFCreateAttributes(&attributes, 1), S_OK);
  attributes->SetUINT32(MF_SOURCE_READER_ENABLE_VIDEO_PROCESSING, TRUE);
  EXPECT_EQ(MFCreateSourceReaderFromURL(L"" VSTABILIZE_CLIP, attributes.Get(), &reader), S_OK);
  Clip clip;
  if (!reader) return clip;
  ComPtr<IMFMediaType> wanted;
  MFCreateMediaType(&wanted);
  wanted->SetGUID(MF_MT_MAJOR_TYPE, MFMediaType_Video);
  wanted->SetGUID(MF_MT_SUBTYPE, MFVideoFormat_RGB24);
  EXPECT_EQ(reader->SetCurrentMediaType(kVideo, nullptr, wanted.Get()), S_OK);
  EXPECT_EQ(reader->GetCurrentMediaType(kVideo, &*type), S_OK);
  for (DWORD flags = 0; !(flags & MF_SOURCE_READERF_ENDOFSTREAM);) {
    ComPtr<IMFSample> sample;
    DWORD index = 0;
    LONGLONG time = 0;
    const HRESULT hr = reader->ReadSample(kVideo, 0, &index, &flags, &time, &sample);
    EXPECT_EQ(hr, S_OK);
    if (FAILED(hr)) break;
    if (sample) clip.push_back(Content(sample.Get()));
  }
  return clip;
}

/// The decoded clip through the kernel, at a window of 8 frames.
Clip Stabilized(const Clip& decoded) {
  KernelParams params = DefaultParams(160, 120);
  params.windowLength = 8;
  return ThroughKernel(params, decoded);
}

TEST(Pipeline, StabilizesWhatASourceReaderDecodes) {
  ComPtr<IMFMediaType> type;
  const Clip clip = DecodedClip(&type);
  ASSERT_EQ(clip.size(), 40U);
  StabilizedStream stream;
  ASSERT_EQ(stream.Start(LoadWithWindow(vkvstab_PATHSMOOTHINGLEVEL_2).Get(), type.Get()), S_OK);
  Clip stabilized;
  for (const TimedFrame& frame : clip) Feed(stream, frame, stabilized);
  ASSERT_EQ(stream.Finish(AppendTo(stabilized)), S_OK);
  EXPECT_TRUE(stabilized == Stabilized(clip));
  EXPECT_FALSE(stabilized == clip) << "the camera shakes";
}

/// Keeps what arrives at the end of a media session's pipeline.
class FrameCollector final : public IMFSampleGrabberSinkCallback {
 public:
  /// What arrived so far.
  Clip Frames() {
    const std::lock_guard lock(m_lock);
    return m_clip;
  }

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    const bool isKnown = iid == __uuidof(IUnknown) || iid == __uuidof(IMFClockStateSink) ||
                         iid == __uuidof(IMFSampleGrabberSinkCallback);
    *object = isKnown ? this : nullptr;
    if (isKnown) AddRef();
    return isKnown ? S_OK : E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(InterlockedIncrement(&m_references)); }
  STDMETHODIMP_(ULONG) Release() override {
    const LONG count = InterlockedDecrement(&m_references);
    if (count == 0) delete this;
    return static_cast<ULONG>(count);
  }
  STDMETHODIMP OnProcessSample(REFGUID, DWORD, LONGLONG time, LONGLONG, const BYTE* pixels,
                               DWORD size) override {
    const std::lock_guard lock(m_lock);
    m_clip.push_back({Bytes(pixels, pixels + size), time});
    return S_OK;
  }
  STDMETHODIMP OnClockStart(MFTIME, LONGLONG) override { return S_OK; }
  STDMETHODIMP OnClockStop(MFTIME) override { return S_OK; }
  STDMETHODIMP OnClockPause(MFTIME) override { return S_OK; }
  STDMETHODIMP OnClockRestart(MFTIME) override { return S_OK; }
  STDMETHODIMP OnClockSetRate(MFTIME, float) override { return S_OK; }
  STDMETHODIMP OnSetPresentationClock(IMFPresentationClock*) override { return S_OK; }
  STDMETHODIMP OnShutdown() override { return S_OK; }

 private:
  ~FrameCollector() = default;

  LONG m_references = 1;
  std::mutex m_lock;
  Clip m_clip;
};

ComPtr<IMFTopologyNode> AddNode(IMFTopology* topology, MF_TOPOLOGY_TYPE type, IUnknown* object = nullptr) {
  ComPtr<IMFTopologyNode> node;
  EXPECT_EQ(MFCreateTopologyNode(type, &node), S_OK);
  if (object) node->SetObject(object);
  EXPECT_EQ(topology->AddNode(node.Get()), S_OK);
  return node;
}

/// The file's video through the transform to the collector; what lies between is the topology loader's.
ComPtr<IMFTopology> MakeTopology(IMFMediaSource* source, IMFTransform* transform, FrameCollector* collector) {
  ComPtr<IMFPresentationDescriptor> presentation;
  ComPtr<IMFStreamDescriptor> stream;
  BOOL isSelected = FALSE;
  EXPECT_EQ(source->CreatePresentationDescriptor(&presentation), S_OK);
  EXPECT_EQ(presentation->GetStreamDescriptorByIndex(0, &isSelected, &stream), S_OK);
  EXPECT_TRUE(isSelected);
  ComPtr<IMFActivate> sink;
  EXPECT_EQ(MFCreateSampleGrabberSinkActivate(FrameType(160, 120).Get(), collector, &sink), S_OK);
  sink->SetUINT32(MF_SAMPLEGRABBERSINK_IGNORE_CLOCK, TRUE);

  ComPtr<IMFTopology> topology;
  EXPECT_EQ(MFCreateTopology(&topology), S_OK);
  const ComPtr<IMFTopologyNode> sourceNode = AddNode(topology.Get(), MF_TOPOLOGY_SOURCESTREAM_NODE);
  sourceNode->SetUnknown(MF_TOPONODE_SOURCE, source);
  sourceNode->SetUnknown(MF_TOPONODE_PRESENTATION_DESCRIPTOR, presentation.Get());
  sourceNode->SetUnknown(MF_TOPONODE_STREAM_DESCRIPTOR, stream.Get());
  const ComPtr<IMFTopologyNode> node = AddNode(topology.Get(), MF_TOPOLOGY_TRANSFORM_NODE, transform);
  const ComPtr<IMFTopologyNode> sinkNode = AddNode(topology.Get(), MF_TOPOLOGY_OUTPUT_NODE, sink.Get());
  EXPECT_EQ(sourceNode->ConnectOutput(0, node.Get(), 0), S_OK);
  EXPECT_EQ(node->ConnectOutput(0, sinkNode.Get(), 0), S_OK);
  return topology;
}

/// Waits for an event; false when something fails before it.
bool WaitFor(IMFMediaSession* session, MediaEventType wanted) {
  for (;;) {
    ComPtr<IMFMediaEvent> event;
    MediaEventType type = MEUnknown;
    HRESULT status = E_FAIL;
    if (FAILED(session->GetEvent(0, &event)) || FAILED(event->GetStatus(&status)) ||
        FAILED(event->GetType(&type)))
      return false;
    EXPECT_EQ(status, S_OK) << "event " << type;
    if (FAILED(status) || type == wanted) return SUCCEEDED(status);
  }
}

TEST(Pipeline, StabilizesInAMediaSession) {
  const ComPtr<IMFTransform> transform = LoadWithWindow(vkvstab_PATHSMOOTHINGLEVEL_2);
  // The loader asks for output types first.
  ASSERT_EQ(transform->SetInputType(0, FrameType(160, 120).Get(), 0), S_OK);
  ASSERT_EQ(transform->SetOutputType(0, FrameType(160, 120).Get(), 0), S_OK);

  ComPtr<IMFSourceResolver> resolver;
  ComPtr<IUnknown> object;
  ComPtr<IMFMediaSource> source;
  MF_OBJECT_TYPE objectType = MF_OBJECT_INVALID;
  ASSERT_EQ(MFCreateSourceResolver(&resolver), S_OK);
  ASSERT_EQ(resolver->CreateObjectFromURL(L"" VSTABILIZE_CLIP, MF_RESOLUTION_MEDIASOURCE, nullptr,
                                          &objectType, &object),
            S_OK);
  ASSERT_EQ(object.As(&source), S_OK);
  ComPtr<FrameCollector> collector;
  *collector.GetAddressOf() = new FrameCollector;
  ComPtr<IMFMediaSession> session;
  ASSERT_EQ(MFCreateMediaSession(nullptr, &session), S_OK);
  const ComPtr<IMFTopology> topology = MakeTopology(source.Get(), transform.Get(), collector.Get());
  PROPVARIANT fromStart = {};
  EXPECT_EQ(session->SetTopology(0, topology.Get()), S_OK);
  EXPECT_EQ(session->Start(&GUID_NULL, &fromStart), S_OK);
  const bool isPlayed = WaitFor(session.Get(), MESessionEnded);
  EXPECT_EQ(session->Close(), S_OK);
  EXPECT_TRUE(!isPlayed || WaitFor(session.Get(), MESessionClosed));
  session->Shutdown();
  source->Shutdown();

  ComPtr<IMFMediaType> type;
  Clip expected = Stabilized(DecodedClip(&type));
  ASSERT_EQ(expected.size(), 40U);
  expected.resize(36);
  EXPECT_TRUE(collector->Frames() == expected) << "a session takes nothing from the delay line";
}

}  // namespace
