// The command `vstabilize` with random options, and streams with damaged heads, frames and ends.

#include <string>

#include "fuzz/target.h"
#include "fuzz/texts.h"
#include "host/command.h"
#include "host/commandrun.h"
#include "support/memory.h"

namespace {

constexpr std::int64_t kMostMemory = 1 << 28;

constexpr char kWords[] =
    "--window 12|--window 256|--crop 0|--crop 3,2|--crop 10%|--clip crop|--clip outline|--interpolation "
    "nearest|"
    "--interpolation bilinear|--background keep|--background ff8000|--roi 0,0,20,15|--roi 20,14,99,99|"
    "--simd scalar|--size 21x15|--size 16384x16384|--engine kernel|--engine transform|--quality 4|--frames 3|"
    "--rotation|--no-rotation|--tripod|--no-cuts|--output-size|--quiet";

/// Samplings, each with the bytes of a frame of 21x15.
constexpr char kSamplings[] =
    "420 491|444alpha 1260|mono 315|420p10 982|422 645|mono16 630|444p12 1890|411 500";

std::string ChooseWords(Choices& choices) {
  std::string words = "--window 4";
  for (std::int32_t i = choices.Number(0, 4); i > 0; --i) {
    std::string word = TextOf(choices, kWords);
    const std::size_t name = word.find(' ');
    if (name != std::string::npos && choices.Once(4)) {
      std::string value = word.substr(name + 1);
      choices.Damage(value, 2);
      word.replace(name + 1, word.npos, value);
    }
    words += ' ' + word;
  }
  return words;
}

Bytes ChooseStream(Choices& choices) {
  const std::string sampling = TextOf(choices, kSamplings);
  const std::size_t blank = sampling.find(' ');
  std::string text = "YUV4MPEG2 W21 H15 C" + sampling.substr(0, blank);
  for (const char* const tag : {" F25:1", " Ip", " A4:3", " XCOLORRANGE=FULL"})
    if (choices.Once(2)) text += tag;
  if (choices.Once(3)) choices.Damage(text, 3);
  text += '\n';
  Bytes picture(std::stoul(sampling.substr(blank))), stream(text.begin(), text.end());
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

void Live(Choices& choices) {
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
}
