#include <algorithm>
#include <cmath>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "host/commandrun.h"
#include "host/settings.h"
#include "scenes/scene.h"

namespace {

using Rows = std::vector<std::vector<double>>;

void Append(Bytes& bytes, const std::string& text) { bytes.insert(bytes.end(), text.begin(), text.end()); }

/// The first line, without its end.
std::string Head(const Bytes& stream) {
  return {stream.begin(), std::ranges::find(stream, static_cast<std::uint8_t>('\n'))};
}

/// A stream of one picture again and again, with parameters at its second frame. Of words each second byte
/// keeps the bits of `highByte`.
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

constexpr std::int32_t kWidth = 160, kHeight = 120;

/// The green of a scene as top-down planes: all planes alike, so that alpha is seen to move along. It is
/// never 0.
Bytes MovingStream(const std::string& tag, int planes, const std::vector<CameraPose>& poses) {
  const Scene scene({kWidth, kHeight}, 24);
  Bytes stream;
  Append(stream, "YUV4MPEG2 W160 H120 F25:1 C" + tag + '\n');
  for (const CameraPose& pose : poses) {
    const Bytes packed = Packed(scene.Shoot(pose).data(), kWidth, kHeight, scene.Frame().strideBytes);
    Append(stream, "FRAME\n");
    for (int plane = 0; plane < planes; ++plane)
      for (std::size_t i = 1; i < packed.size(); i += 3)
        stream.push_back(std::max<std::uint8_t>(packed[i], 1));
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
    std::string tag, margins, size;
    std::size_t frameBytes, croppedBytes;
  };
  for (const auto& [tag, margins, size, frameBytes, croppedBytes] :
       std::vector<Case>{{"444", "3,2", "19x11", 3 * 25 * 15, 3 * 19 * 11},
                         {"444", "0", "25x15", 3 * 25 * 15, 3 * 25 * 15},
                         {"mono", "20%", "15x9", 25 * 15, 15 * 9},
                         {"420", "4,2", "17x11", 25 * 15 + 2 * 13 * 8, 17 * 11 + 2 * 9 * 6}}) {
    const Bytes input = StillStream("YUV4MPEG2 W25 H15 Xa F25:1 C" + tag, frameBytes, 3);
    const Outcome cropped = RunWords("--clip crop --crop " + margins, input);
    const std::size_t x = size.find('x');
    EXPECT_EQ(Head(cropped.output),
              "YUV4MPEG2 W" + size.substr(0, x) + " H" + size.substr(x + 1) + " Xa F25:1 C" + tag);
    EXPECT_EQ(cropped.output.size() + Head(input).size() - Head(cropped.output).size(),
              input.size() - 3 * (frameBytes - croppedBytes));
    const Outcome told = RunWords("--output-size --clip crop --crop " + margins, input);
    EXPECT_TRUE(std::ranges::equal(told.output, size + '\n')) << size;
  }
}

TEST(Y4m, WritesTheWholeFramesOfAnInputCutShortAsTheRawStreamDoes) {
  const Bytes whole = StillStream("YUV4MPEG2 W21 H15 Cmono", 21 * 15, 5),
              raw(std::size_t{5} * 21 * 15 * 3, 99);
  for (const auto& [words, frames, rest] : {std::tuple(" --crop 0", &whole, std::string("FRA")),
                                            {" --crop 0", &whole, "FRAME\n" + std::string(200, 'x')},
                                            {" --size 21x15 --clip crop", &raw, std::string(200, 'x')}}) {
    Bytes cut = *frames;
    Append(cut, rest);
    const Outcome outcome = RunWords(std::string("--window 8") + words, cut);
    EXPECT_EQ(outcome.code, 1);
    for (const char* const named : {"ends inside frame 6", "; the 5 whole"})
      EXPECT_NE(outcome.messages.find(named), std::string::npos) << outcome.messages;
    EXPECT_EQ(std::ranges::count(outcome.messages, '\n'), 1);
    EXPECT_EQ(outcome.output.size(), frames->size()) << words;
    EXPECT_TRUE(frames == &raw || outcome.output == whole);
  }
}

TEST(Y4m, MovesAlphaAlongAndLeavesUncoveredPixelsTransparent) {
  std::vector<CameraPose> poses(12);
  poses[6] = {6, 4, 0};
  const Bytes input = MovingStream("444alpha", 4, poses);
  const Outcome outcome = RunWords("--crop 0 --window 8 --interpolation nearest --background ffffff", input);
  ASSERT_EQ(outcome.output.size(), input.size()) << outcome.messages;
  // All planes were alike, so luma is either alpha or, where alpha is 0, the background.
  const std::size_t plane = std::size_t{kWidth} * kHeight;
  const auto* const luma = outcome.output.data() + Head(input).size() + 1 + 6 * (6 + 4 * plane) + 6;
  std::size_t uncovered = 0;
  for (std::size_t i = 0; i < plane; ++i) {
    if (luma[3 * plane + i] == 0) ++uncovered;
    ASSERT_EQ(luma[i], luma[3 * plane + i] == 0 ? 235 : luma[3 * plane + i]) << "pixel " << i;
  }
  EXPECT_GT(uncovered, std::size_t{kWidth});
  EXPECT_LT(uncovered, plane / 4);
}

TEST(Y4m, TakesOneSecondAsWindowAndTheColoursOfTheClip) {
  StreamFacts stream;
  stream.format = {.width = 320, .height = 240, .planes = 4};
  using Window = std::array<std::int64_t, 3>;
  for (const auto& [frames, seconds, window] : {Window{0, 0, 32},
                                                {10, 1, 16},
                                                {24, 1, 24},
                                                {25, 1, 26},
                                                {30000, 1001, 30},
                                                {50, 1, 50},
                                                {240, 1, 64},
                                                {1000000000, 1, 64}}) {
    stream.rateNumerator = frames;
    stream.rateDenominator = seconds;
    EXPECT_EQ(MakePreciseSettings({}, stream).window, window) << frames << ':' << seconds;
  }

  Options orange;
  orange.background = {0x20, 0x80, 0xff};
  // As ffmpeg's scaler makes them of the same colour.
  using Samples = std::array<std::uint16_t, precise::kMaxPlanes>;
  EXPECT_EQ(MakePreciseSettings(orange, stream).background, (Samples{149, 67, 191, 0}));
  stream.isFullRange = true;
  EXPECT_EQ(MakePreciseSettings(orange, stream).background, (Samples{155, 59, 199, 0}));
  stream.matrix = ColourMatrix::Bt709;
  EXPECT_EQ(MakePreciseSettings(orange, stream).background, (Samples{148, 65, 196, 0}));
  stream.format.planes = 2;
  EXPECT_EQ(MakePreciseSettings(orange, stream).background, (Samples{148, 0, 0, 0}));
}

Rows ReadLog(const std::string& fileName, std::string& head) {
  std::ifstream file(fileName);
  std::getline(file, head);
  Rows rows;
  for (std::string line; std::getline(file, line);) {
    std::istringstream fields(line);
    rows.emplace_back();
    for (std::string field; std::getline(fields, field, ',');) rows.back().push_back(std::stod(field));
  }
  std::remove(fileName.c_str());
  return rows;
}

TEST(Y4m, LogsMotionInTheClassicEnginesColumnsAndSigns) {
  // One jolt, which both engines are to take back.
  constexpr std::size_t kJolt = 4;
  std::vector<CameraPose> poses(9);
  poses[kJolt] = {8, 6, 2};
  Bytes raw;
  const Scene scene({kWidth, kHeight}, 24);
  for (const CameraPose& pose : poses) {
    const Bytes packed = Packed(scene.Shoot(pose).data(), kWidth, kHeight, scene.Frame().strideBytes);
    raw.insert(raw.end(), packed.begin(), packed.end());
  }
  const std::string name = ::testing::TempDir() + "signs.csv";
  std::string head, classicHead;
  EXPECT_EQ(
      RunWords("--size 160x120 --engine kernel --window 4 --rotation --quality 1 --force --motion " + name,
               raw)
          .code,
      0);
  const Rows classicLog = ReadLog(name, classicHead);
  EXPECT_EQ(
      RunWords("--window 4 --crop 0 --no-cuts --force --motion " + name, MovingStream("mono", 1, poses)).code,
      0);
  const Rows preciseLog = ReadLog(name, head);

  EXPECT_EQ(classicHead, "frame,motion_x,motion_y,motion_theta,correction_x,correction_y,correction_theta");
  EXPECT_EQ(head, classicHead + ",shot,zoom");
  ASSERT_EQ(preciseLog.size(), classicLog.size());
  ASSERT_EQ(preciseLog.size(), poses.size());
  for (std::size_t frame = 0; frame < preciseLog.size(); ++frame) {
    ASSERT_EQ(preciseLog[frame].size(), 9U);
    EXPECT_EQ(preciseLog[frame][0], static_cast<double>(frame));
    for (std::size_t column = 1; column < 3; ++column)
      EXPECT_NEAR(preciseLog[frame][column], classicLog[frame][column], 1) << frame << ", column " << column;
    EXPECT_NEAR(preciseLog[frame][3], classicLog[frame][3], 0.1) << frame;
    EXPECT_EQ(preciseLog[frame][7], 0);
    EXPECT_NEAR(preciseLog[frame][8], 1, 0.01);
  }
  for (std::size_t column = 4; column < 7; ++column) {
    EXPECT_GT(std::abs(classicLog[kJolt][column]), 0.5);
    EXPECT_GT(preciseLog[kJolt][column] * classicLog[kJolt][column], 0) << "column " << column;
  }
}

}  // namespace
