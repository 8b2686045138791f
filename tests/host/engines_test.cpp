#include <gtest/gtest.h>
#include <new>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "host/commandrun.h"
#include "host/transformstabilizer.h"

namespace {

TEST(Engines, GiveTheSameBytesWhateverTheOptions) {
  const std::pair<int, int> sizes[] = {{2, 2},  {3, 2},   {2, 31},   {5, 90},
                                       {33, 7}, {61, 50}, {127, 65}, {150, 101}};
  const std::vector<std::string> options[] = {
      {" --window 4", " --window 4", " --window 8", " --window 12", " --window 16", " --window 24", "",
       " --window 64", " --window 128"},
      {" --quality 1", " --quality 2", "", " --quality 4"},
      {"", " --rotation"},
      {"", " --clip outline", " --clip crop", " --clip stretch"},
      {"", " --crop 12,7", " --crop 0,5", " --crop 9,0", " --crop 99,99", " --crop 1,1"},
      {"", " --interpolation nearest"},
      {"", " --background 204060"},
      {"", " --roi 0,1,2,2", " --roi 1,0,999,999"}};
  std::mt19937 random;
  for (unsigned i = 0; i < 48; ++i) {
    const auto& [width, height] = sizes[i % std::size(sizes)];
    std::string words = "--size " + std::to_string(width) + 'x' + std::to_string(height);
    for (const std::vector<std::string>& option : options) words += option[random() % option.size()];
    const Bytes clip = ShakyClip(width, height, 9);
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
