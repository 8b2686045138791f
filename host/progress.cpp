#include "host/progress.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>

#include "host/platform.h"

namespace {

constexpr auto kRedrawInterval = std::chrono::milliseconds(100);

std::string MinutesAndSeconds(double seconds) {
  constexpr double kLongest = 1e9;
  const auto whole = std::llround(std::min(seconds, kLongest));
  const std::string rest = std::to_string(whole % 60);
  return std::to_string(whole / 60) + (rest.size() < 2 ? ":0" : ":") + rest;
}

/// A bar of at most `room` characters; empty if `room` is too small.
std::string Bar(std::int64_t frames, std::int64_t total, std::size_t room) {
  constexpr std::size_t kFrame = 3, kNarrowest = 5, kWidest = 30;
  if (room < kFrame + kNarrowest) return "";
  const std::size_t width = std::min(room - kFrame, kWidest);
  const auto done = static_cast<std::size_t>(static_cast<std::int64_t>(width) * frames / total);
  return '[' + std::string(done, '#') + std::string(width - done, '.') + "] ";
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
  // If there are more frames than announced, the bar stays full.
  const std::int64_t total = std::max(m_totalFrames, frames);
  // The line must not wrap, because the next one overwrites only one row of the terminal.
  const std::size_t columns = TerminalColumns(m_pTerminal);
  const std::size_t room = columns > 0 ? columns - 1 : std::numeric_limits<std::size_t>::max();
  const std::string rate = ", " + std::to_string(std::llround(framesPerSecond)) + " a second";
  std::string line = std::to_string(frames);
  if (m_totalFrames > 0) line += '/' + std::to_string(total);
  line += " frames";
  std::string left;
  if (m_totalFrames > 0)
    left = ", " + MinutesAndSeconds(static_cast<double>(total - frames) / framesPerSecond) + " left";
  if ((line + rate + left).size() <= room) line += rate;
  line += left;
  if (m_totalFrames > 0) line = Bar(frames, total, room - std::min(room, line.size())) + line;
  // Blanks erase the end of a longer line. A control sequence would not do it on every Windows console.
  m_lineLength = std::min(room, std::max(m_lineLength, line.size()));
  line.resize(m_lineLength, ' ');
  std::fputs(('\r' + line).c_str(), m_pTerminal);
  std::fflush(m_pTerminal);
}
