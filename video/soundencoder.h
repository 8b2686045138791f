#pragma once

#include <optional>

#include "video/decoder.h"
#include "video/filterchain.h"
#include "video/sidestreams.h"

/// Encodes sound that cannot be copied.
class SoundEncoder final : public SideStream {
 public:
  /// Adds a stream to the output. `fillsStart`: put silence before sound that begins late. Throws WorkError.
  SoundEncoder(const Input& input, const AVStream& stream, Output& output, const AVCodec& encoder,
               bool fillsStart);

  void Take(AVPacket& packet) override;
  void End() override;

 private:
  void Build(const AVChannelLayout& layout, int format, int rate);
  void Decode(const AVPacket* packet);
  void Encode(AVFrame* frame);
  void Collect();

  AVRational m_sourceBase;
  Decoder m_decoder;
  Output& m_output;
  CodecPtr m_pEncoder;
  AVStream* m_pTarget;
  std::optional<FilterChain> m_chain;
  int m_format = -1, m_rate = 0, m_channels = 0;  // of the chain's input
  bool m_fillsStart;
  std::int64_t m_nextPts = AV_NOPTS_VALUE;
};
