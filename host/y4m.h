#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "host/settings.h"

// YUV4MPEG2: a line of tags, then for each frame a line of parameters and its planes without padding.

/// Bytes of all planes of a frame.
std::size_t FrameBytes(const precise::PictureFormat& format);

/// The planes of a frame that lie one after the other at `samples`.
precise::Picture PlanesOf(const precise::PictureFormat& format, std::uint8_t* samples);

/// A buffer for one frame of a stream. Only the constructor allocates.
struct Y4mFrame {
  /// Throws std::bad_alloc.
  explicit Y4mFrame(std::size_t bytes);

  std::string parameters;  ///< the text after FRAME
  std::size_t bytes;
  std::unique_ptr<std::uint8_t[]> samples;
};

class Y4mReader {
 public:
  /// Reads the head of the stream. Throws WorkError when the head is missing or not supported.
  explicit Y4mReader(std::FILE* stream);

  /// The tags of the head, unchanged.
  const std::string& Head() const { return m_head; }
  const StreamFacts& Facts() const { return m_facts; }

  /// Reads the next frame; false at the stream's end. Throws WorkError when the stream cannot be read, ends
  /// inside the frame or has something else in its place.
  bool Read(Y4mFrame& frame);

 private:
  std::FILE* m_pStream;
  std::string m_head;
  StreamFacts m_facts;
  std::int64_t m_frames = 0;
};

class Y4mWriter {
 public:
  /// Writes `head` with the width and height of `format`. Throws WorkError.
  Y4mWriter(std::FILE* stream, std::string_view head, const precise::PictureFormat& format);

  /// Throws WorkError.
  void Write(std::string_view parameters, std::span<const std::uint8_t> samples);

 private:
  std::FILE* m_pStream;
  std::string m_frameLine;
  std::int64_t m_frames = 0;
};
