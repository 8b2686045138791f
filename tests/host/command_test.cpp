#include "host/command.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#ifdef __linux__
#include <fcntl.h>
#include <unistd.h>
#endif

#include "host/commandrun.h"
#include "host/platform.h"
#include "host/progress.h"
#include "kernel/stabilizevideokernel.h"
#include "scenes/scene.h"
#include "support/params.h"

namespace {

constexpr std::int32_t kWidth = 101, kHeight = 90;
constexpr int kFrames = 11;

Bytes ShotClip(int frames = kFrames) { return ShakyClip(kWidth, kHeight, frames); }

/// The same clip through the kernel alone.
Bytes KernelClip(const KernelParams& params, std::int32_t outputWidth, std::int32_t outputHeight,
                 std::ptrdiff_t pitch) {
  const Scene scene({kWidth, kHeight}, 24);
  CStabilizeVideoKernel kernel;
  EXPECT_TRUE(kernel.Initialize(params));
  Bytes clip;
  for (int i = 0; i < kFrames + params.windowLength / 2; ++i) {
    Bytes frame = scene.Shoot(ShakyPose(i));
    bool noOutput = false;
    EXPECT_TRUE(kernel.ProcessFrame(frame.data(), i >= kFrames, &noOutput));
    if (noOutput) continue;
    const Bytes packed = Packed(frame.data(), outputWidth, outputHeight, pitch);
    clip.insert(clip.end(), packed.begin(), packed.end());
  }
  return clip;
}

TEST(Command, GivesTheKernelsFramesAsManyAsWentIn) {
  const Bytes input = ShotClip();
  KernelParams params = DefaultParams(kWidth, kHeight);
  params.windowLength = 8;
  EXPECT_EQ(RunWords("--size 101x90 --window 8 --engine kernel --simd scalar --quiet", input).output,
            KernelClip(params, kWidth, kHeight, 304));

  params.windowLength = 4;
  params.estimationCoefficients = 1;
  params.estimationQuality = 0;
  params.roi = {3, 4, 95, 88};
  params.cropMarginX = 12;
  params.cropMarginY = 7;
  params.clippingOption = 1;
  params.interpolation = 0;
  params.backgroundColor = {0xAA, 0x66, 0x33};
  const Outcome cropped = RunWords(
      "--size=101x90 --window=4 --rotation --quality 1 --roi 3,4,95,88 --crop 12,7 --clip crop "
      "--interpolation nearest "
      "--background 3366aa --frames 11",
      input);
  EXPECT_EQ(cropped.code, 0) << cropped.messages;
  EXPECT_EQ(cropped.messages, "") << "no progress where there is no terminal";
  EXPECT_EQ(cropped.output, KernelClip(params, 77, 76, PackedCropPitch(77)));
}

TEST(Command, FillsWhatTheCroppedFrameLacksWithBackground) {
  // Without margins the packed rows of 5 pixels need 2 bytes a row more than the frame has: 10 rows find no
  // room.
  constexpr std::size_t kRowBytes = 5 * 3, kRows = 90, kRowsWithoutRoom = 10;
  const Outcome outcome =
      RunWords("--size 5x90 --clip crop --window 4 --background 102030", RandomBytes(kRowBytes * kRows, 1));
  ASSERT_EQ(outcome.output.size(), kRowBytes * kRows);
  const Bytes background = {0x30, 0x20, 0x10};
  for (std::size_t i = 0; i < kRowBytes * kRowsWithoutRoom; ++i)
    EXPECT_EQ(outcome.output[i], background[i % 3]);
  EXPECT_NE(outcome.output[kRowBytes * kRowsWithoutRoom + 3], background[0]);
}

TEST(Command, SaysWhatItIsAskedInPlaceOfFrames) {
  const auto told = [](const char* words) {
    const Outcome outcome = RunWords(words);
    EXPECT_EQ(outcome.code, 0) << outcome.messages;
    return std::string(outcome.output.begin(), outcome.output.end());
  };
  EXPECT_EQ(told("--size 640x480 --crop 5000,10 --clip crop --output-size"), "2x460\n");
  EXPECT_EQ(told("--size 640x480 --crop 5000,10 --output-size"), "640x480\n");
  EXPECT_EQ(told("--size 640x480 --crop 2.5% --clip crop --output-size"), "608x456\n");
  EXPECT_EQ(told("--size 64x48 --roi -5,-5,9000,9000"), "");
  EXPECT_NE(told("--help --nonsense").find("--output-size"), std::string::npos);
  EXPECT_EQ(told("--version").rfind("vstabilize ", 0), 0U);
}

TEST(Command, RefusesInOneLineThatNamesTheValue) {
  const std::string good = "YUV4MPEG2 W21 H15 F25:1 Cmono\n", size = "YUV4MPEG2 W21 H15 ";
  struct Refusal {
    std::string words, named, head = {};
    int code = 2;
  };
  for (const auto& [words, named, head, code] : std::vector<Refusal>{
           // The words alone
           {"--engine kernel", "--size"},
           {"--size 64x", "64x"},
           {"--size 1x100", "at least 2"},
           {"--size 40000x40000", "2147483647"},
           {"--size 64x48 --roi 30,10,20,40", "30,10,20,40"},
           {"--size 64x48 --frames -3", "-3"},
           {"--size 64x48 --crop 517", "517"},
           {"--size 64x48 --background red", "red"},
           {"--size 64x48 --registered --roi 0,0,20,30", kHasTransform ? "--roi" : "Windows"},
           {"--size 64x48 --registered --engine kernel", kHasTransform ? "kernel" : "Windows"},
           {"--settings --size 4", kHasTransform ? "4" : "Windows"},
           {"--size 64x48 --tripod", "--tripod is no option of the engine"},
           {"--size 64x48 --engine precise", "--size is no option of the engine precise"},
           {"--crop 50%", "less than 50%"},
           {"--widnow 8", "is it --window?"},
           {"--size 64x48 --rotation=yes", "--rotation"},
           {"--size 64x48 --motion", "--motion"},
           {"--size 64x48 \x1b[2J\x7f\u009b\x9b\u00db", "unknown option ?[2J???\u00db;"},
           // The words for these frames
           {"--size 64x48 --window 33", "33"},
           {"--size 64x48 --roi 64,0,80,48", "outside the 64x48"},
           {"--size 64x48 --interpolation bicubic", "nearest and bilinear"},
           {"--size 64x48 --background keep", "--background keep"},
           {"--window 258", "--window 258", good},
           {"--crop 11,2", "--crop 11,2", good},
           {"--crop 2,8 --output-size", "--crop 2,8", good},
           {"--roi 21,0,30,9", "outside the 21x15", good},
           // The stream
           {"", "input is empty; YUV4MPEG2", "", 1},
           {"", "--size", "RIFF", 1},
           {"", "--size", "YUV4MPEG", 1},
           {"", "no end", "YUV4MPEG2 W21 H15", 1},
           {"", "no end", size + "X" + std::string(2000, 'x') + "\n", 1},
           {"", "height (H)", "YUV4MPEG2 W21\n", 1},
           {"", "W0", "YUV4MPEG2 W0 H15\n", 1},
           {"", "H99999999999", "YUV4MPEG2 W21 H99999999999\n", 1},
           {"", "W21x", "YUV4MPEG2 W21x H15\n", 1},
           {"", "F25", size + "F25\n", 1},
           {"", "F25:0", size + "F25:0\n", 1},
           {"", "A-1:1", size + "A-1:1\n", 1},
           {"", "setsar", size + "A50:1\n", 1},
           {"", "bwdif", size + "Im\n", 1},
           {"", "Iz", size + "Iz\n", 1},
           {"", "-pix_fmt yuv420p", size + "C420p11\n", 1},
           {"", "C411", size + "C411\n", 1},
           {"", "FRAME before frame 1", good + "FRAMES\n", 1},
           {"", "line before frame 1", good + "FRAME " + std::string(2000, 'x') + "\n", 1}}) {
    const Outcome outcome = RunWords(words, Bytes(head.begin(), head.end()));
    EXPECT_EQ(outcome.code, code) << words << ' ' << head;
    EXPECT_NE(outcome.messages.find(named), std::string::npos) << words << head << ": " << outcome.messages;
    EXPECT_EQ(outcome.messages.find('\n'), outcome.messages.size() - 1) << outcome.messages;
    EXPECT_TRUE(code == 1 || outcome.output.empty()) << words;
  }
}

#ifdef __linux__
TEST(Command, WritesTheWholeFramesOfAnInputThatCannotBeRead) {
  struct Source {
    Bytes clip = ShotClip(7);
    std::size_t position = 0;
  } source;
  const auto read = [](void* cookie, char* buffer, std::size_t size) -> ssize_t {
    auto& from = *static_cast<Source*>(cookie);
    const std::size_t count = std::min(size, from.clip.size() - from.position);
    if (count == 0) return errno = EIO, -1;
    std::copy_n(from.clip.begin() + static_cast<std::ptrdiff_t>(from.position), count, buffer);
    from.position += count;
    return static_cast<ssize_t>(count);
  };
  const File input(
      fopencookie(&source, "rb", {.read = read, .write = nullptr, .seek = nullptr, .close = nullptr}));
  const File output = TemporaryFile(), messages = TemporaryFile();
  const Arguments arguments("--size 101x90 --window 8");
  EXPECT_EQ(RunCommand(arguments.Pointers(), input.get(), output.get(), messages.get()), 1);
  EXPECT_EQ(ReadAll(output.get()).size(), source.clip.size());
  const Bytes text = ReadAll(messages.get());
  EXPECT_NE(std::string(text.begin(), text.end()).find("cannot read frame 8"), std::string::npos);
}

TEST(Command, WaitsForPipesThatDoNotBlock) {
  const Bytes clip = ShotClip();
  int in[2], out[2];
  ASSERT_EQ(pipe2(in, O_NONBLOCK) | pipe2(out, O_NONBLOCK), 0);
  const File messages = TemporaryFile();
  File input(fdopen(in[0], "rb")), output(fdopen(out[1], "wb"));
  fcntl(in[1], F_SETFL, 0);
  fcntl(out[0], F_SETFL, 0);
  // Both pipes hold less than a frame, so that the command runs dry and runs full.
  fcntl(in[1], F_SETPIPE_SZ, 4096);
  fcntl(out[0], F_SETPIPE_SZ, 4096);
  std::thread feeder([&] {
    const File feed(fdopen(in[1], "wb"));
    std::fwrite(clip.data(), 1, clip.size(), feed.get());
  });
  Bytes steady(clip.size());
  std::thread drain([&] {
    const File from(fdopen(out[0], "rb"));
    steady.resize(std::fread(steady.data(), 1, steady.size(), from.get()));
  });
  const Arguments arguments("--size 101x90 --window 8");
  EXPECT_EQ(RunCommand(arguments.Pointers(), input.get(), output.get(), messages.get()), 0);
  input.reset();
  output.reset();
  feeder.join();
  drain.join();
  EXPECT_EQ(steady, RunWords("--size 101x90 --window 8", clip).output);
}
#endif

TEST(Command, OverwritesAMotionFileOnlyWhenToldAndNeverItsOwnStreams) {
  const std::string name = ::testing::TempDir() + "kept.csv", spelt = ::testing::TempDir() + "./kept.csv";
  const Bytes clip = ShotClip(1);
  const auto make = [&](const Bytes& content) {
    const File file(std::fopen(name.c_str(), "wb"));
    std::fwrite(content.data(), 1, content.size(), file.get());
  };
  const auto run = [&](const std::string& words, std::FILE* input, std::FILE* output) {
    const Arguments arguments("--size 101x90 --window 4 --engine kernel --motion " + spelt + words);
    const File messages = TemporaryFile();
    return RunCommand(arguments.Pointers(), input, output, messages.get());
  };
  const auto size = [&] { return std::filesystem::file_size(name); };
  const File nothing = TemporaryFile(), sink = TemporaryFile();
  make(clip);
  EXPECT_EQ(run("", nothing.get(), sink.get()), 1);
  EXPECT_EQ(run(" --force", File(std::fopen(name.c_str(), "rb")).get(), sink.get()), 1) << "the input";
  EXPECT_EQ(run(" --force", nothing.get(), File(std::fopen(name.c_str(), "ab")).get()), 1) << "the output";
  EXPECT_EQ(size(), clip.size());
  EXPECT_EQ(run(" --force", nothing.get(), sink.get()), 0);
  EXPECT_LT(size(), 100U) << "the head line alone";
  std::remove(name.c_str());
}

TEST(Command, ReportsEveryPlaceThatTakesNoMore) {
  const File full(std::fopen("/dev/full", "wb"));
  if (!full) GTEST_SKIP() << "this system has no /dev/full";
  const Outcome frames = RunWords("--size 101x90 --window 4", ShotClip(), full.get());
  EXPECT_EQ(frames.code, 1);
  EXPECT_NE(frames.messages.find("cannot write frame 1 of the output"), std::string::npos) << frames.messages;
  EXPECT_EQ(RunWords("--help", {}, full.get()).code, 1);
  EXPECT_EQ(RunWords("--size 64x48 --output-size", {}, full.get()).code, 1);
  const Outcome outcome = RunWords("--size 101x90 --window 4 --motion /dev/full", ShotClip());
  EXPECT_EQ(outcome.code, 1);
  EXPECT_NE(outcome.messages.find("cannot write the motion file /dev/full"), std::string::npos)
      << outcome.messages;
  EXPECT_EQ(outcome.output.size(), ShotClip().size()) << "the frames are not lost for it";
}

TEST(Progress, TellsFramesSpeedAndTimeLeft) {
  const auto drawn = [](std::int64_t total, bool enabled) {
    const File terminal = TemporaryFile();
    {
      Progress progress(terminal.get(), total, enabled);
      progress.Update(5);
    }
    const Bytes text = ReadAll(terminal.get());
    return std::string(text.begin(), text.end());
  };
  const std::string known = drawn(10, true);
  EXPECT_NE(known.find("[###############...............] 5/10 frames"), std::string::npos) << known;
  EXPECT_NE(known.find(" a second, 0:00 left"), std::string::npos) << known;
  EXPECT_EQ(known.back(), '\n');
  EXPECT_EQ(known.find('\x1b'), std::string::npos) << "a console may show control sequences as they are";
  EXPECT_EQ(drawn(0, true).find("left"), std::string::npos);
  EXPECT_NE(drawn(3, true).find("5/5"), std::string::npos) << "more than announced";
  EXPECT_EQ(drawn(10, false), "");
}

}  // namespace
