#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <string>
#include <vector>

using Bytes = std::vector<std::uint8_t>;

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

File TemporaryFile(const Bytes& content = {});
Bytes ReadAll(std::FILE* file);

struct Outcome {
  int code;
  Bytes output;
  std::string messages;
};

/// The words of a line as the arguments of a program.
class Arguments {
 public:
  explicit Arguments(const std::string& line);
  std::span<const char* const> Pointers() const { return m_pointers; }

 private:
  std::vector<std::string> m_words;
  std::vector<const char*> m_pointers;
};

/// Runs the command with these words.
Outcome RunWords(const std::string& words, const Bytes& input = {});
Outcome RunWords(const std::string& words, std::FILE* input, std::FILE* output);

/// The rows of a padded bottom-up frame, top row first and without padding.
Bytes Packed(const std::uint8_t* frame, std::int32_t width, std::int32_t height, std::ptrdiff_t pitch);

/// Frames of a shaky camera as raw video, which the command reads.
Bytes ShakyClip(std::int32_t width, std::int32_t height, int frames);
