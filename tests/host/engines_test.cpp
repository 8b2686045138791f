#include <gtest/gtest.h>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "host/commandrun.h"
#include "host/transformmodule.h"
#include "host/transformstabilizer.h"

namespace {

TEST(Engines, GiveTheSameBytesForEveryCombinationOfOptions) {
  const std::vector<std::string> options[] = {
      {"", " --rotation"},
      {" --quality 1", " --quality 2", "", " --quality 4"},
      {"", " --clip crop", " --clip stretch"},
      {"", " --crop 12,7", " --crop 0,5", " --crop 9,0", " --crop 99,99"},
      {" --interpolation nearest --background 204060", " --roi 0,1,45,45", " --roi 1,0,999,999"}};
  // While these live, the command need not start the platform and load the module again for each run.
  const ComSession session(COINIT_MULTITHREADED);
  const TransformModule module(false);
  // 7 sizes and 11 windows: each meets the other, and every option.
  const std::pair<int, int> sizes[] = {{2, 2}, {3, 2}, {5, 50}, {33, 7}, {61, 50}, {64, 48}, {75, 65}};
  const char* const windows[] = {"4", "8", "4", "12", "4", "16", "24", "8", "32", "64", "128"};
  Bytes clips[std::size(sizes)];
  for (unsigned i = 0; i < std::size(sizes); ++i) clips[i] = ShakyClip(sizes[i].first, sizes[i].second, 9);

  for (unsigned i = 0; i < 360; ++i) {
    const Bytes& clip = clips[i % std::size(sizes)];
    const auto& [width, height] = sizes[i % std::size(sizes)];
    std::string words = "--size " + std::to_string(width) + 'x' + std::to_string(height) + " --window " +
                        windows[i % std::size(windows)];
    unsigned combination = i;
    for (const std::vector<std::string>& option : options) {
      words += option[combination % option.size()];
      combination /= static_cast<unsigned>(option.size());
    }
    const Outcome kernel = RunWords(words + " --engine kernel", clip);
    const Outcome transform = RunWords(words + " --engine transform", clip);
    EXPECT_EQ(kernel.code, 0) << words << ": " << kernel.messages;
    EXPECT_EQ(transform.code, 0) << words << ": " << transform.messages;
    EXPECT_FALSE(kernel.output.empty());
    EXPECT_TRUE(kernel.output == transform.output) << words;
  }
}

TEST(Engines, ReportAFrameThatFindsNoMemoryInTheTransform) {
  // A window that the kernel refuses looks the same: no frame ever comes out.
  StabilizerSettings settings;
  settings.PathSmoothingLevel = 5;
  TransformStabilizer stabilizer(settings, {64, 48}, false);
  for (int i = 0; i < 2; ++i) EXPECT_FALSE(stabilizer.Process(false));
  EXPECT_THROW(stabilizer.Process(false), std::bad_alloc);
}

}  // namespace
