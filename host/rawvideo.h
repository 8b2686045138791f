#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "engine/stabilizersettings.h"
#include "kernel/frame.h"

/// Reading, stabilizing or writing failed; the message says where.
class WorkError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Frames without padding, top row first, from a stream.
class RawVideoReader {
 public:
  enum class Result { Frame, End, CutShort };

  RawVideoReader(std::FILE* stream, FrameSize size);

  /// Reads the next frame into a padded bottom-up one. `CutShort` when the stream ends inside the frame.
  /// Throws WorkError.
  Result Read(std::uint8_t* frame);

  /// How much there is of the frame that was cut short, for messages.
  std::string CutDescription() const;

 private:
  std::FILE* m_pStream;
  FrameGeometry m_frame;
  std::vector<std::uint8_t> m_packed;
  std::size_t m_bytesRead = 0;
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
};
