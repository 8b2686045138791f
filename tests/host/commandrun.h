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

/// The words of a command line, as the command takes them.
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

/// Rows without padding, top row first, of a padded bottom-up frame.
Bytes Packed(const std::uint8_t* frame, std::int32_t width, std::int32_t height, std::ptrdiff_t pitch);

/// A moving camera's frames as the command reads them.
Bytes ShakyClip(std::int32_t width, std::int32_t height, int frames);
