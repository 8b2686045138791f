#include "host/rawvideo.h"

#include <cerrno>
#include <cstring>
#include <string>

#include "host/stream.h"
#include "host/workerror.h"

namespace {

std::size_t PackedRowBytes(std::int32_t width) { return static_cast<std::size_t>(width) * kBytesPerPixel; }

}  // namespace

RawVideoReader::RawVideoReader(std::FILE* stream, FrameSize size)
    : m_pStream(stream),
      m_frame(size.width, size.height),
      m_packed(PackedRowBytes(size.width) * static_cast<std::size_t>(size.height)) {
  DisableBuffering(stream);
}

bool RawVideoReader::Read(std::uint8_t* frame) {
  const std::size_t bytes = ReadBytes(m_pStream, m_packed);
  if (bytes == 0 && !std::ferror(m_pStream)) return false;
  if (bytes < m_packed.size()) {
    const std::string name = "frame " + std::to_string(m_frames + 1);
    throw WorkError(std::ferror(m_pStream) ? "cannot read " + name + " of the input: " + SystemReason(errno)
                                           : "the input ends inside " + name + " (" + std::to_string(bytes) +
                                                 " of " + std::to_string(m_packed.size()) + " bytes)");
  }

  ++m_frames;
  const std::size_t rowBytes = PackedRowBytes(m_frame.width);
  const std::uint8_t* packedRow = m_packed.data();
  for (std::int32_t row = m_frame.height; row-- > 0; packedRow += rowBytes)
    std::memcpy(frame + m_frame.Offset(0, row), packedRow, rowBytes);
  return true;
}

RawVideoWriter::RawVideoWriter(std::FILE* stream, FrameSize size)
    : m_pStream(stream),
      m_size(size),
      m_packed(PackedRowBytes(size.width) * static_cast<std::size_t>(size.height)) {
  DisableBuffering(stream);
}

void RawVideoWriter::Write(const std::uint8_t* frame, std::ptrdiff_t pitchBytes) {
  const std::size_t rowBytes = PackedRowBytes(m_size.width);
  std::uint8_t* packedRow = m_packed.data();
  for (std::int32_t row = m_size.height; row-- > 0; packedRow += rowBytes)
    std::memcpy(packedRow, frame + row * pitchBytes, rowBytes);

  if (!WriteBytes(m_pStream, std::as_bytes(std::span(m_packed))))
    throw WorkError("cannot write frame " + std::to_string(m_frames + 1) +
                    " of the output: " + SystemReason(errno));
  ++m_frames;
}
