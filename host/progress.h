#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>

/// A line on a terminal that shows the progress. Draws nothing when disabled.
class Progress {
 public:
  /// `totalFrames` 0: unknown.
  Progress(std::FILE* terminal, std::int64_t totalFrames, bool enabled);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void Update(std::int64_t frames);

 private:
  using Clock = std::chrono::steady_clock;

  void Draw(std::int64_t frames);

  std::FILE* m_pTerminal;
  std::int64_t m_totalFrames, m_frames = 0;
  bool m_enabled;
  Clock::time_point m_start, m_lastDrawn;
  std::size_t m_lineLength = 0;  // of the longest line so far
};
