#pragma once

#include <vector>

#include "video/sidestreams.h"

/// Converts text subtitles to a codec that the output takes.
class SubtitleConverter final : public SideStream {
 public:
  /// Adds a stream to the output. Throws WorkError.
  SubtitleConverter(const Input& input, const AVStream& stream, Output& output, const AVCodec& encoder);

  void Take(AVPacket& packet) override;

 private:
  void Encode(AVSubtitle& subtitle, std::int64_t duration);

  AVRational m_sourceBase;
  Output& m_output;
  CodecPtr m_pDecoder, m_pEncoder;
  AVStream* m_pTarget = nullptr;
  std::vector<std::uint8_t> m_buffer;
};
