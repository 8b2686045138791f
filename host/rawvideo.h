#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "engine/stabilizersettings.h"
#include "kernel/frame.h"

/// Reads frames without padding, top row first.
class RawVideoReader {
 public:
  RawVideoReader(std::FILE* stream, FrameSize size);

  /// Reads the next frame and stores it bottom-up with padded rows; false at the stream's end. Throws
  /// WorkError when the stream cannot be read or ends inside the frame.
  bool Read(std::uint8_t* frame);

 private:
  std::FILE* m_pStream;
  FrameGeometry m_frame;
  std::vector<std::uint8_t> m_packed;
  std::int64_t m_frames = 0;
};

/// Writes frames without padding, top row first.
class RawVideoWriter {
 public:
  RawVideoWriter(std::FILE* stream, FrameSize size);

  /// Writes a bottom-up frame whose rows are `pitchBytes` apart. Throws WorkError.
  void Write(const std::uint8_t* frame, std::ptrdiff_t pitchBytes);

 private:
  std::FILE* m_pStream;
  FrameSize m_size;
  std::vector<std::uint8_t> m_packed;
  std::int64_t m_frames = 0;
};
