// The command `vstabilize`: its words, and streams whose heads, frames and ends are damaged.

#include <string>

#include "fuzz/limitedmemory.h"
#include "fuzz/target.h"
#include "host/command.h"
#include "host/commandrun.h"

namespace {

constexpr std::int64_t kMostMemory = 1 << 28;

std::string ChooseWords(Choices& choices) {
  struct Option {
    const char* name;
    std::initializer_list<const char*> values;
  };
  static const Option options[] = {
      {"--window", {"4", "2", "12", "256", "5"}},
      {"--crop", {"0", "3,2", "10%", "0.5%", "99999"}},
      {"--clip", {"crop", "outline", "stretch", "crop"}},
      {"--interpolation", {"nearest", "bilinear", "bicubic"}},
      {"--background", {"keep", "ff8000", "00000g"}},
      {"--roi", {"0,0,20,15", "3,2,9,9", "20,14,99,99", "5,5,5,5"}},
      {"--simd", {"scalar", "avx2"}},
      {"--size", {"21x15", "1x1", "64x2", "16384x16384"}},
      {"--engine", {"precise", "kernel", "transform"}},
      {"--quality", {"1", "4", "0"}},
      {"--frames", {"3", "-1", "99999999999999999999"}},
      {"--rotation", {}},
      {"--no-rotation", {}},
      {"--tripod", {}},
      {"--no-cuts", {}},
      {"--output-size", {}},
      {"--quiet", {}},
  };
  std::string words = "--window 4";
  for (std::int32_t i = choices.Number(0, 4); i > 0; --i) {
    const Option& option = options[choices.Byte() % std::size(options)];
    words += std::string(" ") + option.name;
    if (option.values.size() == 0) continue;
    std::string value = choices.OneOf(option.values);
    if (choices.Once(4)) choices.Damage(value, 2);
    words += ' ' + value;
  }
  return words;
}

Bytes ChooseStream(Choices& choices) {
  const char* const sampling =
      choices.OneOf({"420", "444alpha", "mono", "420p10", "422", "mono16", "444p12", "420paldv", "411"});
  std::string text = "YUV4MPEG2 W21 H15 C" + std::string(sampling);
  for (const char* tag : {" F25:1", " Ip", " A4:3", " XCOLORRANGE=FULL"})
    if (choices.Once(2)) text += tag;
  if (choices.Once(3)) choices.Damage(text, 3);
  text += '\n';
  // Luma, chroma and alpha as they should be, and sometimes not.
  const std::string name = sampling;
  const std::size_t chroma = name[0] == 'm' ? 0 : name.starts_with("420") ? 88 : name == "422" ? 165 : 315;
  std::size_t size = (315 + 2 * chroma + (name == "444alpha" ? 315 : 0));
  if (name.find_first_of('p') == 3 || name == "mono16") size *= name == "420paldv" ? 1 : 2;
  Bytes picture(size), stream(text.begin(), text.end());
  for (std::int32_t i = choices.Number(0, 12); i > 0; --i) {
    choices.Fill(picture);
    const std::string line = choices.Once(3) ? "FRAME Ip Xnote\n" : "FRAME\n";
    stream.insert(stream.end(), line.begin(), line.end());
    stream.insert(stream.end(), picture.begin(), picture.end());
  }
  if (choices.Once(4)) choices.Damage(stream, 3);
  return stream;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Choices choices({data, size});
  const std::string words = ChooseWords(choices);
  const Bytes stream = ChooseStream(choices);
  const Arguments arguments(words);
  const File input = TemporaryFile(stream), output = TemporaryFile(), messages = TemporaryFile();
  const int code = [&] {
    const LimitedMemory limited(kMostMemory);
    return RunCommand(arguments.Pointers(), input.get(), output.get(), messages.get());
  }();
  const Bytes text = ReadAll(messages.get());
  Require(code >= 0 && code <= 2, "the exit code is one of those told");
  Require(text.empty() == (code == 0), "failures are told, and nothing else");
  for (const std::uint8_t& character : text)
    Require(character >= ' ' || &character == &text.back(), "the message is a line");
  const bool isWhole =
      words.find("--clip crop") == std::string::npos && words.find("--output") == std::string::npos;
  if (code == 0 && isWhole)
    Require(ReadAll(output.get()).size() == stream.size(), "as much comes out as went in");
  return 0;
}
