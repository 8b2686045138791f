#pragma once

#include <cstdint>
#include <string>

#include "video/av.h"

/// Decodes one stream, and counts its damage: packets that are skipped, and frames that the decoder mended.
class Decoder {
 public:
  /// `threads` 0: one for each core. Throws WorkError.
  Decoder(const AVStream& stream, const std::string& fileName, int threads);

  AVCodecContext& Context() const { return *m_pContext; }

  /// Null ends the stream. After each call all frames must be received.
  void Send(const AVPacket* packet);

  /// False when the next frame needs another packet, or the stream has ended.
  bool Receive(AVFrame& frame);

  std::int64_t DamageCount() const { return m_damaged; }

 private:
  CodecPtr m_pContext;
  std::int64_t m_damaged = 0;
};
