// The program `stabilize` on video files with flipped bits, other bytes and missing ends.

#include <filesystem>

#include "fuzz/target.h"
#include "host/commandrun.h"
#include "video/command.h"

namespace {

namespace fs = std::filesystem;

/// Short clips of each container, and a folder that is removed at the program's end.
struct Folder {
  Folder() {
    Require(mkdtemp(path.data()) != nullptr, "a temporary folder can be made");
    for (const std::string kind : {"mp4", "mkv", "avi", "ts", "mov", "gif", "mpg", "flv"}) {
      const std::string clip = path + "/clip." + kind;
      const std::string command =
          "ffmpeg -nostdin -v error -f lavfi -i testsrc2=size=64x48:rate=25 -f lavfi -i sine "
          "-t 0.4 -ar 44100 -metadata title=a " +
          clip;
      Require(std::system(command.c_str()) == 0, "ffmpeg makes clips");
      clips.push_back(ReadAll(File(std::fopen(clip.c_str(), "rb")).get()));
      fs::remove(clip);
    }
  }
  ~Folder() { fs::remove_all(path); }

  std::string path = "/tmp/fuzz-XXXXXX";
  std::vector<Bytes> clips;
};

}  // namespace

void Live(Choices& choices) {
  static const Folder folder;
  const std::string input = folder.path + "/in", output = folder.path + "/out";
  Bytes clip = folder.clips[choices.Byte() % folder.clips.size()];
  choices.Damage(clip, 20);
  std::fwrite(clip.data(), 1, clip.size(), File(std::fopen(input.c_str(), "wb")).get());
  const std::string target = output + choices.OneOf({".mp4", ".mkv", ".avi", ".ts", ".mov", ".gif"});
  std::string words = input + ' ' + target + " --window 4";
  for (const char* word : {"--keep-partial", "--compare", "--start 0.12", "--end 0.3", "--engine kernel"})
    if (choices.Once(5)) words += std::string(" ") + word;
  const Arguments arguments(words);
  const File text = TemporaryFile(), messages = TemporaryFile();
  const int code = RunStabilize(arguments.Pointers(), text.get(), messages.get());
  Require(code >= 0 && code <= 2, "the exit code is one of those told");
  Require(fs::exists(target) == (code == 0), "there is a file where the work is done");
  fs::remove(target);
  fs::remove(input);
  Require(fs::is_empty(folder.path), "nothing else is left");
}
