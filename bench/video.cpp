#include "video.h"

#include <charconv>
#include <optional>
#include <string>

namespace {

std::optional<std::string> ReadLine(std::FILE* file) {
  std::string line;
  for (int c = std::fgetc(file); c != '\n'; c = std::fgetc(file)) {
    if (c == EOF) return std::nullopt;
    line.push_back(static_cast<char>(c));
  }
  return line;
}

/// The number behind a tag such as " W", or 0 without the tag.
int Number(const std::string& line, const char* tag) {
  const auto at = line.find(tag);
  int number = 0;
  if (at != std::string::npos) std::from_chars(line.data() + at + 2, line.data() + line.size(), number);
  return number;
}

}  // namespace

bool Video::Open(std::FILE* file) {
  m_file = file;
  const auto line = ReadLine(file);
  if (!line || !line->starts_with("YUV4MPEG2 ")) return false;
  m_width = Number(*line, " W");
  m_height = Number(*line, " H");
  const auto colours = line->find(" C");
  const bool is420 = colours == std::string::npos || line->find(" C420") == colours;
  const bool isDeep = line->find(" C420p1") != std::string::npos;
  if (m_width < 2 || m_height < 2 || !is420 || isDeep) return false;
  m_luma.resize(At(m_height, m_width, 0));
  m_u.resize(At((m_height + 1) / 2, (m_width + 1) / 2, 0));
  m_v.resize(m_u.size());
  return true;
}

bool Video::ReadFrame() {
  const auto line = ReadLine(m_file);
  if (!line || !line->starts_with("FRAME")) return false;
  for (auto* plane : {&m_luma, &m_u, &m_v}) {
    if (std::fread(plane->data(), 1, plane->size(), m_file) != plane->size()) return false;
  }
  return true;
}
