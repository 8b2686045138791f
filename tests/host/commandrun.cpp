#include "host/commandrun.h"

#include <iterator>
#include <sstream>
#include <stdexcept>

#include "host/command.h"
#include "scenes/scene.h"

#ifdef _WIN32
#include <windows.h>
#endif

namespace {

#ifdef _WIN32
// The library's std::tmpfile frees its name before it opens the file, so two programs may get the same file.
std::FILE* OpenTemporary() {
  wchar_t folder[MAX_PATH + 1], path[MAX_PATH];
  GetTempPathW(MAX_PATH + 1, folder);
  return GetTempFileNameW(folder, L"run", 0, path) != 0 ? _wfopen(path, L"w+bTD") : nullptr;
}
#else
std::FILE* OpenTemporary() { return std::tmpfile(); }
#endif

}  // namespace

File TemporaryFile(const Bytes& content) {
  File file(OpenTemporary());
  if (!file) throw std::runtime_error("cannot make a temporary file");
  if (!content.empty()) std::fwrite(content.data(), 1, content.size(), file.get());
  std::rewind(file.get());
  return file;
}

Bytes ReadAll(std::FILE* file) {
  std::rewind(file);
  Bytes content;
  std::uint8_t block[4096];
  while (const std::size_t size = std::fread(block, 1, sizeof block, file))
    content.insert(content.end(), block, block + size);
  return content;
}

Arguments::Arguments(const std::string& line) {
  std::istringstream stream(line);
  m_words.assign(std::istream_iterator<std::string>(stream), {});
  for (const std::string& word : m_words) m_pointers.push_back(word.c_str());
}

Outcome RunWords(const std::string& words, std::FILE* input, std::FILE* output) {
  const Arguments arguments(words);
  const File messages = TemporaryFile();
  const int code = RunCommand(arguments.Pointers(), input, output, messages.get());
  const Bytes text = ReadAll(messages.get());
  return {code, ReadAll(output), std::string(text.begin(), text.end())};
}

Outcome RunWords(const std::string& words, const Bytes& input) {
  return RunWords(words, TemporaryFile(input).get(), TemporaryFile().get());
}

Bytes Packed(const std::uint8_t* frame, std::int32_t width, std::int32_t height, std::ptrdiff_t pitch) {
  Bytes packed;
  for (std::int32_t row = height; row-- > 0;)
    packed.insert(packed.end(), frame + row * pitch, frame + row * pitch + std::ptrdiff_t{width} * 3);
  return packed;
}

Bytes ShakyClip(std::int32_t width, std::int32_t height, int frames) {
  const FrameGeometry geometry(width, height);
  Bytes clip;
  for (const Bytes& frame : ShakyFrames(geometry, frames)) {
    const Bytes packed = Packed(frame.data(), width, height, geometry.strideBytes);
    clip.insert(clip.end(), packed.begin(), packed.end());
  }
  return clip;
}
