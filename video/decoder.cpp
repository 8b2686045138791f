#include "video/decoder.h"

#include "host/workerror.h"

Decoder::Decoder(const AVStream& stream, const std::string& fileName, int threads) {
  const AVCodec* const codec = avcodec_find_decoder(stream.codecpar->codec_id);
  const std::string what = "cannot decode stream " + std::to_string(stream.index) + " (" +
                           avcodec_get_name(stream.codecpar->codec_id) + ") of " + fileName;
  if (!codec) throw WorkError(what + ": no decoder for it");
  m_pContext.reset(Allocated(avcodec_alloc_context3(codec)));
  Check(avcodec_parameters_to_context(m_pContext.get(), stream.codecpar), what);
  m_pContext->pkt_timebase = stream.time_base;
  m_pContext->framerate = stream.avg_frame_rate;
  m_pContext->thread_count = threads;
  Check(avcodec_open2(m_pContext.get(), codec, nullptr), what);
}

void Decoder::Send(const AVPacket* packet) {
  const int result = avcodec_send_packet(m_pContext.get(), packet);
  if (result == AVERROR(ENOMEM)) throw std::bad_alloc();
  if (result < 0 && result != AVERROR_EOF) ++m_damaged;
}

bool Decoder::Receive(AVFrame& frame) {
  while (true) {
    const int result = avcodec_receive_frame(m_pContext.get(), &frame);
    if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return false;
    if (result == AVERROR(ENOMEM)) throw std::bad_alloc();
    if (result < 0 || frame.decode_error_flags != 0 || (frame.flags & AV_FRAME_FLAG_CORRUPT) != 0)
      ++m_damaged;
    if (result >= 0) return true;
  }
}
