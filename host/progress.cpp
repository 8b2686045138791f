#include "host/progress.h"

#include <algorithm>
#include <cmath>
#include <string>

namespace {

constexpr auto kRedrawInterval = std::chrono::milliseconds(100);
constexpr std::int64_t kBarWidth = 30;

std::string Minutes(double seconds) {
  constexpr double kLongest = 1e9;
  const auto whole = std::llround(std::min(seconds, kLongest));
  const std::string rest = std::to_string(whole % 60);
  return std::to_string(whole / 60) + (rest.size() < 2 ? ":0" : ":") + rest;
}

std::string Bar(std::int64_t frames, std::int64_t total) {
  const std::int64_t done = kBarWidth * frames / total;
  return '[' + std::string(static_cast<std::size_t>(done), '#') +
         std::string(static_cast<std::size_t>(kBarWidth - done), '.') + "] ";
}

}  // namespace

Progress::Progress(std::FILE* terminal, std::int64_t totalFrames, bool enabled)
    : m_pTerminal(terminal),
      m_totalFrames(totalFrames),
      m_enabled(enabled),
      m_start(Clock::now()),
      m_lastDrawn(m_start - kRedrawInterval) {}

Progress::~Progress() {
  if (!m_enabled || m_frames == 0) return;
  Draw(m_frames);
  std::fputc('\n', m_pTerminal);
}

void Progress::Update(std::int64_t frames) {
  m_frames = frames;
  if (!m_enabled || Clock::now() - m_lastDrawn < kRedrawInterval) return;
  Draw(frames);
}

void Progress::Draw(std::int64_t frames) {
  m_lastDrawn = Clock::now();
  const double seconds = std::max(std::chrono::duration<double>(m_lastDrawn - m_start).count(), 1e-3);
  const double framesPerSecond = static_cast<double>(frames) / seconds;
  // The announced total may be too small: then the bar stays full.
  const std::int64_t total = std::max(m_totalFrames, frames);
  std::string line = "\r";
  if (m_totalFrames > 0) line += Bar(frames, total);
  line += std::to_string(frames);
  if (m_totalFrames > 0) line += '/' + std::to_string(total);
  line += " frames, " + std::to_string(std::llround(framesPerSecond)) + " a second";
  if (m_totalFrames > 0)
    line += ", " + Minutes(static_cast<double>(total - frames) / framesPerSecond) + " left";
  // Blanks cover a longer line before: not every Windows console follows control sequences.
  m_lineLength = std::max(m_lineLength, line.size());
  line.resize(m_lineLength, ' ');
  std::fputs(line.c_str(), m_pTerminal);
  std::fflush(m_pTerminal);
}
