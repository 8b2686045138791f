// Video files with damaged bytes through `stabilize`.

#include <filesystem>
#include <fstream>
#include <iterator>

#include "fuzz/target.h"
#include "host/commandrun.h"
#include "video/command.h"

namespace {

namespace fs = std::filesystem;

/// A folder with a short clip of each kind, while the program runs.
struct Folder {
  Folder() {
    Require(mkdtemp(path.data()) != nullptr, "a temporary folder can be made");
    for (const char* const name : {"1.mp4", "2.mkv", "3.avi", "4.ts", "5.mov", "6.gif", "7.mpg", "8.flv"}) {
      const std::string
          file = path + "/clip",
          command =
              "ffmpeg -nostdin -v error -f lavfi -i testsrc2=size=64x48:rate=25 -f lavfi -i sine "
              "-t 0.4 -ar 44100 -metadata title=a " +
              path + '/' + name;
      Require(std::system(command.c_str()) == 0, "ffmpeg makes clips");
      std::ifstream stream(path + '/' + name, std::ios::binary);
      clips.emplace_back(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
      fs::remove(path + '/' + name);
    }
  }
  ~Folder() { fs::remove_all(path); }

  std::string path = "/tmp/fuzz-XXXXXX";
  std::vector<std::string> clips;
};

}  // namespace

void Live(Choices& choices) {
  static const Folder folder;
  const std::string input = folder.path + "/in", output = folder.path + "/out";
  std::string clip = folder.clips[choices.Byte() % folder.clips.size()];
  choices.Damage(clip, 20);
  std::ofstream(input, std::ios::binary) << clip;
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
