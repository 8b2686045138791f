#pragma once

#include <cstdint>
#include <string>

#include "video/av.h"

/// Decodes one stream. What is damaged is skipped and counted.
class Decoder {
 public:
  /// `threads` 0: as many as there are cores. Throws WorkError.
  Decoder(const AVStream& stream, const std::string& fileName, int threads);

  AVCodecContext& Context() const { return *m_pContext; }

  /// Null: no packet follows. After each call all frames must be received.
  void Send(const AVPacket* packet);

  /// False when there is none until more is sent.
  bool Receive(AVFrame& frame);

  std::int64_t DamagedPackets() const { return m_damaged; }

 private:
  CodecPtr m_pContext;
  std::int64_t m_damaged = 0;
};
