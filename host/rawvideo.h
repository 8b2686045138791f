#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "engine/stabilizersettings.h"
#include "kernel/frame.h"

/// Frames without padding, top row first, from a stream.
class RawVideoReader {
 public:
  enum class Result { Frame, End, Failed };

  RawVideoReader(std::FILE* stream, FrameSize size);

  /// Reads the next frame into a padded bottom-up one. `Failed` when the stream cannot be read or ends inside
  /// the frame.
  Result Read(std::uint8_t* frame);

  /// What failed, and at which frame.
  const std::string& Failure() const { return m_failure; }

 private:
  std::FILE* m_pStream;
  FrameGeometry m_frame;
  std::vector<std::uint8_t> m_packed;
  std::int64_t m_frames = 0;
  std::string m_failure;
};

/// Frames without padding, top row first, to a stream.
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
