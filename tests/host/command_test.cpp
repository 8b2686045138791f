#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <tuple>
#include <vector>

#ifdef __linux__
#include <sys/socket.h>
#include <unistd.h>
#endif

#include "host/commandrun.h"
#include "host/platform.h"
#include "host/settings.h"
#include "kernel/stabilizevideokernel.h"
#include "scenes/scene.h"
#include "support/params.h"

namespace {

constexpr std::int32_t kWidth = 101, kHeight = 90;
constexpr int kFrames = 11;

/// The frames of ShakyClip as the kernel gives them, without the command.
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
  const Bytes input = ShakyClip(kWidth, kHeight, kFrames);
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
      "--interpolation nearest --background 3366aa --frames 11",
      input);
  EXPECT_EQ(cropped.code, 0) << cropped.messages;
  EXPECT_EQ(cropped.messages, "") << "no progress where there is no terminal";
  EXPECT_EQ(cropped.output, KernelClip(params, 77, 76, PackedCropPitch(77)));
}

TEST(Command, FillsWhatTheCroppedFrameLacksWithBackground) {
  // A cropped row of 5 pixels takes 18 bytes, a row of the frame 16: so 10 of 90 rows lie behind the frame's
  // end.
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
           // Refused before any input is read
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
           // Refused for frames of this size
           {"--size 64x48 --window 33", "33"},
           {"--size 64x48 --roi 64,0,80,48", "outside the 64x48"},
           {"--size 64x48 --interpolation bicubic", "nearest and bilinear"},
           {"--size 64x48 --background keep", "--background keep"},
           {"--window 258", "--window 258", good},
           {"--crop 11,2", "--crop 11,2", good},
           {"--crop 2,8 --output-size", "--crop 2,8", good},
           {"--roi 21,0,30,9", "outside the 21x15", good},
           // Refused because of the stream
           {"", "input is empty; YUV4MPEG2", "", 1},
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
           {"", "bwdif", size + "It\n", 1},
           {"", "bwdif", size + "Ib\n", 1},
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

TEST(Command, OverwritesAMotionFileOnlyWhenToldAndNeverItsOwnStreams) {
  const std::string name = ::testing::TempDir() + "kept.csv", spelt = ::testing::TempDir() + "./kept.csv";
  const auto open = [&](const char* mode) { return File(std::fopen(name.c_str(), mode)); };
  const File nothing = TemporaryFile(), sink = TemporaryFile();
  const auto run = [&](const std::string& words, std::FILE* input, std::FILE* output) {
    return RunWords("--size 101x90 --window 4 --engine kernel --motion " + spelt + words, input, output).code;
  };
  const Bytes clip = ShakyClip(kWidth, kHeight, 1);
  std::fwrite(clip.data(), 1, clip.size(), open("wb").get());
  EXPECT_EQ(run("", nothing.get(), sink.get()), 1);
  EXPECT_EQ(run(" --force", open("rb").get(), sink.get()), 1) << "the input";
  EXPECT_EQ(run(" --force", nothing.get(), open("ab").get()), 1) << "the output";
  EXPECT_EQ(std::filesystem::file_size(name), clip.size());
  EXPECT_EQ(run(" --force", nothing.get(), sink.get()), 0);
  EXPECT_LT(std::filesystem::file_size(name), 100U) << "the head line alone";
  std::remove(name.c_str());
}

void Append(Bytes& bytes, const std::string& text) { bytes.insert(bytes.end(), text.begin(), text.end()); }

/// A stream that repeats one picture of noise; the second frame has parameters. `highByte` masks each second
/// byte, to keep words of 9 to 16 bits in range.
Bytes StillStream(const std::string& head, std::size_t frameBytes, int frames, int highByte = 255) {
  Bytes picture = RandomBytes(frameBytes, 1);
  for (std::size_t i = 1; i < picture.size(); i += 2)
    picture[i] = static_cast<std::uint8_t>(picture[i] & highByte);
  Bytes stream;
  Append(stream, head + '\n');
  for (int i = 0; i < frames; ++i) {
    Append(stream, i == 1 ? "FRAME Ip Xnote=a\n" : "FRAME\n");
    stream.insert(stream.end(), picture.begin(), picture.end());
  }
  return stream;
}

TEST(Y4m, KeepsHeadFramesAndParametersOfEverySampling) {
  // 21x15 luma samples, 11 or 21 columns and 8 or 15 rows of each chroma plane.
  constexpr std::size_t kLuma = 21 * 15, k420 = kLuma + 2 * 11 * 8, k422 = kLuma + 2 * 11 * 15;
  struct Case {
    std::string tags;
    std::size_t frameBytes;
    int highByte = 255;
  };
  for (const auto& [tags, frameBytes, highByte] :
       std::vector<Case>{{"", k420},
                         {" Ip A0:0 C420", k420},
                         {" C420jpeg XYSCSS=420JPEG XCOLORRANGE=FULL", k420},
                         {" I? C420mpeg2 A4:3", k420},
                         {" Qx C420paldv", k420},
                         {" C422", k422},
                         {" C444", 3 * kLuma},
                         {" C444alpha", 4 * kLuma},
                         {" Cmono", kLuma},
                         {" C420p9", 2 * k420, 1},
                         {" C422p10 XYSCSS=422P10", 2 * k422, 3},
                         {" C444p14", 6 * kLuma, 63},
                         {" C420p16", 2 * k420},
                         {" Cmono12", 2 * kLuma, 15}}) {
    for (const int frames : {0, 1, 9}) {
      const Bytes input = StillStream("YUV4MPEG2 H15 W21 F0:0" + tags, frameBytes, frames, highByte);
      const Outcome outcome = RunWords("--crop 0 --window 4", input);
      EXPECT_EQ(outcome.code, 0) << tags << ": " << outcome.messages;
      EXPECT_EQ(outcome.messages, "");
      EXPECT_TRUE(outcome.output == input) << tags << ", " << frames << " frames";
    }
  }
}

TEST(Y4m, ChangesTheHeadsSizeWhereItCrops) {
  struct Case {
    std::string tag, margins, size, sides;
    std::size_t frameBytes, croppedBytes;
  };
  for (const auto& [tag, margins, size, sides, frameBytes, croppedBytes] :
       std::vector<Case>{{"444", "3,2", "19x11", "W19 H11", 3 * 25 * 15, 3 * 19 * 11},
                         {"444", "0", "25x15", "W25 H15", 3 * 25 * 15, 3 * 25 * 15},
                         {"mono", "20%", "15x9", "W15 H9", 25 * 15, 15 * 9},
                         {"420", "4,2", "17x11", "W17 H11", 25 * 15 + 2 * 13 * 8, 17 * 11 + 2 * 9 * 6}}) {
    const Bytes input = StillStream("YUV4MPEG2 W25 H15 Xa F25:1 C" + tag, frameBytes, 3);
    const Outcome cropped = RunWords("--clip crop --crop " + margins, input);
    const std::string head = "YUV4MPEG2 " + sides + " Xa F25:1 C" + tag;
    EXPECT_EQ(std::string(cropped.output.begin(), cropped.output.end()).substr(0, head.size() + 1),
              head + '\n');
    EXPECT_EQ(cropped.output.size(), StillStream(head, croppedBytes, 3).size()) << head;
    const Outcome told = RunWords("--output-size --clip crop --crop " + margins, input);
    EXPECT_TRUE(std::ranges::equal(told.output, size + '\n')) << size;
  }
}

TEST(Y4m, WritesTheWholeFramesOfAnInputCutShortAsTheRawStreamDoes) {
  const Bytes whole = StillStream("YUV4MPEG2 W21 H15 Cmono", 21 * 15, 5),
              raw(std::size_t{5} * 21 * 15 * 3, 99);
  const auto expectWhole = [&](const Outcome& outcome, const Bytes& frames, const char* problem) {
    EXPECT_EQ(outcome.code, 1);
    for (const char* const named : {problem, "; the 5 whole"})
      EXPECT_NE(outcome.messages.find(named), std::string::npos) << outcome.messages;
    EXPECT_EQ(std::ranges::count(outcome.messages, '\n'), 1);
    EXPECT_EQ(outcome.output.size(), frames.size()) << problem;
    EXPECT_TRUE(&frames == &raw || outcome.output == whole);
  };
  for (const auto& [words, frames, rest] : {std::tuple("--crop 0", &whole, std::string("FRA")),
                                            {"--crop 0", &whole, "FRAME\n" + std::string(200, 'x')},
                                            {"--size 21x15 --clip crop", &raw, std::string(200, 'x')}}) {
    Bytes cut = *frames;
    Append(cut, rest);
    expectWhole(RunWords(std::string("--window 8 ") + words, cut), *frames, "ends inside frame 6");
  }
#ifdef __linux__
  // A peer that closes with bytes unread makes the next read fail.
  int ends[2] = {};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  ASSERT_EQ(write(ends[1], whole.data(), whole.size()) + write(ends[0], "x", 1) + close(ends[1]),
            static_cast<ssize_t>(whole.size()) + 1);
  const File broken(fdopen(ends[0], "rb")), output = TemporaryFile();
  expectWhole(RunWords("--window 8 --crop 0", broken.get(), output.get()), whole, "cannot read frame 6");
#endif
}

TEST(Y4m, TakesOneSecondAsWindowAndTheColoursOfTheClip) {
  StreamFacts stream;
  stream.format = {.width = 320, .height = 240, .planes = 4};
  using Window = std::array<std::int64_t, 3>;
  for (const auto& [frames, seconds, window] :
       {Window{0, 0, 32}, {10, 1, 16}, {25, 1, 26}, {30000, 1001, 30}, {240, 1, 64}, {1000000000, 1, 64}}) {
    stream.rateNumerator = frames;
    stream.rateDenominator = seconds;
    EXPECT_EQ(MakePreciseSettings({}, stream).window, window) << frames << ':' << seconds;
  }

  Options orange;
  orange.background = {0x20, 0x80, 0xff};
  // ffmpeg's scaler makes the same samples of this colour.
  using Samples = std::array<std::uint16_t, precise::kMaxPlanes>;
  EXPECT_EQ(MakePreciseSettings(orange, stream).background, (Samples{149, 67, 191, 0}));
  stream.isFullRange = true;
  EXPECT_EQ(MakePreciseSettings(orange, stream).background, (Samples{155, 59, 199, 0}));
  stream.matrix = ColourMatrix::Bt709;
  EXPECT_EQ(MakePreciseSettings(orange, stream).background, (Samples{148, 65, 196, 0}));
  stream.format.planes = 2;
  EXPECT_EQ(MakePreciseSettings(orange, stream).background, (Samples{148, 0, 0, 0}));
}

}  // namespace
