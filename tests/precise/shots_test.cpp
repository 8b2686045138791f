#include <gtest/gtest.h>

#include "precise/run.h"

namespace precise {
namespace {

struct ShotCase {
  const char* name;
  std::string_view scenes, shots;
  std::string_view light = "";  ///< of each frame, in ninths
  double pan = 0;               ///< pixels a frame
  double noise = 0;
  bool findCuts = true;
};

constexpr ShotCase kShotCases[] = {
    {"no cut", "aaaaaaaa", "00000000"},
    {"a cut", "aaaaaabbbbbb", "000000111111"},
    {"a cut at the second frame", "abbbbb", "011111"},
    {"a cut at the last frame", "aaaaab", "000001"},
    {"two frames that may be noise", "ab", "00"},
    {"two cuts in a row", "aaaaabcccc", "0000012222"},
    {"a cut, and frames that may be noise", "aaaaabcd", "00000111"},
    {"there and back", "aaaabbaaaa", "0000112222"},
    {"a white flash", "aaaaWaaaa", "000000000"},
    {"a flash of another picture", "aaaabaaaa", "000000000"},
    {"a flash at the start", "aabaa", "00000"},
    {"a flash before a cut", "aaaabacccc", "0000001111"},
    {"a flash after a cut", "aaaabcbbbb", "0000111111"},
    {"black", "KKKKKK", "000000"},
    {"a fade to black and back", "aaaaaaaaaaaaaaaaaa", "000000000000000000", "987654321000123456"},
    {"a fast pan", "aaaaaaaa", "00000000", "", 20},
    {"heavy noise", "aaaaaabbbbbb", "000000111111", "", 0, 25},
    {"cuts not looked for", "aaaabbbb", "00000000", "", 0, 0, false},
};

/// Each shot, stabilized alone, comes out as it does within the whole clip.
void ExpectAlone(const Settings& settings, const std::vector<PlanarFrame>& frames, const Outcome& run) {
  for (std::size_t begin = 0, end = 0; begin < frames.size(); begin = end) {
    while (end < frames.size() && run.reports[end].shot == run.reports[begin].shot) ++end;
    ExpectSame(run, begin, Stabilize(kGrey, settings, std::span(frames).subspan(begin, end - begin)), 0,
               end - begin);
  }
}

TEST(Shots, BeginAtCutsAndAreStabilizedAlone) {
  for (const ShotCase& test : kShotCases) {
    SCOPED_TRACE(test.name);
    std::vector<Take> takes = ShakyTakes(test.scenes);
    for (std::size_t i = 0; i < takes.size(); ++i) {
      if (!test.light.empty()) takes[i].gain = (test.light[i] - '0') / 9.0;
      takes[i].pose.shift.re += test.pan * static_cast<double>(i);
      takes[i].noise = test.noise;
    }
    const std::vector<PlanarFrame> frames = ShootAll(kGrey, takes);
    for (const double margin : {0.0, 6.0}) {
      const Settings settings = {
          .window = 8, .marginX = margin, .marginY = margin, .findCuts = test.findCuts};
      const Outcome run = Stabilize(kGrey, settings, frames);
      std::string shots;
      for (const FrameReport& report : run.reports) shots += static_cast<char>('0' + report.shot);
      EXPECT_EQ(shots, test.shots);
      ExpectAlone(settings, frames, run);
    }
  }
}

/// Whatever a clip shows, frames further away than the delay have no influence.
TEST(Shots, RangesJoinToTheWhole) {
  constexpr std::string_view kScenes = "aaaaaaaaabaaaaabbbbbbbWbbbbbKKbbbbbcdddddd";
  constexpr std::size_t kLength = 3;
  const std::vector<PlanarFrame> frames = ShootAll(kSmall420, ShakyTakes(kScenes, 4));
  for (const double margin : {0.0, 4.0}) {
    const Settings settings = {.window = 8, .marginX = margin, .marginY = margin};
    const Outcome whole = Stabilize(kSmall420, settings, frames);
    const auto delay = static_cast<std::size_t>(CStabilizer(kSmall420, settings).DelayFrames());
    EXPECT_EQ(delay, margin > 0 ? 8U : 4U);
    EXPECT_EQ(DelayFrames(kSmall420, {.window = 8, .marginX = 4, .clipping = Clipping::Crop}), 4)
        << "margins on one axis count as none";
    for (std::size_t begin = 0; begin + kLength <= frames.size(); ++begin) {
      SCOPED_TRACE("range from " + std::to_string(begin) + ", margin " + std::to_string(margin));
      const std::size_t lead = std::min(begin, delay);
      const std::size_t end = std::min(begin + kLength + delay, frames.size());
      const auto range = std::span(frames).subspan(begin - lead, end - (begin - lead));
      ExpectSame(whole, begin, Stabilize(kSmall420, settings, range), lead, kLength);
    }
  }
}

}  // namespace
}  // namespace precise
