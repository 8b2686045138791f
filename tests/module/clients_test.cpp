#include <windows.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <mfidl.h>
#include <mfreadwrite.h>
#include <string>
#include <vector>

#include "common/module.h"
#include "embedding.cpp"
#include "kernel/stabilizevideokernel.h"
#include "module/samples.h"
#include "scenes/scene.h"
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

TEST(EmbeddingGuide, FollowsChangesInMidStream) {
  const ComPtr<IMFTransform> transform = LoadWithWindow(vkvstab_PATHSMOOTHINGLEVEL_1);
  ComPtr<IVKFVStabilize> settings;
  ASSERT_EQ(transform.As(&settings), S_OK);
  StabilizedStream stream;
  ASSERT_EQ(stream.Start(transform.Get(), VideoType(kWidth, kHeight).Get()), S_OK);

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

TEST(Pipeline, StabilizesWhatTheSystemDecodes) {
  constexpr auto kVideo = static_cast<DWORD>(MF_SOURCE_READER_FIRST_VIDEO_STREAM);
  ComPtr<IMFAttributes> attributes;
  ComPtr<IMFSourceReader> reader;
  ComPtr<IMFMediaType> type = VideoType(160, 120);
  ASSERT_EQ(MFCreateAttributes(&attributes, 1), S_OK);
  attributes->SetUINT32(MF_SOURCE_READER_ENABLE_VIDEO_PROCESSING, TRUE);
  ASSERT_EQ(MFCreateSourceReaderFromURL(L"" VSTABILIZE_CLIP, attributes.Get(), &reader), S_OK);
  ASSERT_EQ(reader->SetCurrentMediaType(kVideo, nullptr, type.Get()), S_OK);
  ASSERT_EQ(reader->GetCurrentMediaType(kVideo, type.ReleaseAndGetAddressOf()), S_OK);

  StabilizedStream stream;
  Clip clip, stabilized;
  ASSERT_EQ(stream.Start(LoadWithWindow(vkvstab_PATHSMOOTHINGLEVEL_2).Get(), type.Get()), S_OK);
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
  EXPECT_TRUE(stabilized == ThroughKernel(params, clip));
  EXPECT_FALSE(stabilized == clip) << "the camera shakes";
}

}  // namespace
