#include "video/trial.h"

#include <algorithm>
#include <cstring>

#include "host/workerror.h"
#include "video/decoder.h"
#include "video/streamcopy.h"

namespace {

/// A file in memory.
struct Memory {
  std::uint8_t* bytes = nullptr;
  int size = 0;
  std::int64_t position = 0;

  Memory() = default;
  Memory(const Memory&) = delete;
  Memory& operator=(const Memory&) = delete;
  ~Memory() { av_free(bytes); }
};

int ReadMemory(void* opaque, std::uint8_t* buffer, int wanted) {
  Memory& memory = *static_cast<Memory*>(opaque);
  const std::int64_t count = std::min<std::int64_t>(wanted, memory.size - memory.position);
  if (count <= 0) return AVERROR_EOF;
  std::memcpy(buffer, memory.bytes + memory.position, static_cast<std::size_t>(count));
  memory.position += count;
  return static_cast<int>(count);
}

std::int64_t SeekMemory(void* opaque, std::int64_t offset, int whence) {
  Memory& memory = *static_cast<Memory*>(opaque);
  if (whence == AVSEEK_SIZE) return memory.size;
  if (whence == SEEK_CUR) offset += memory.position;
  if (whence == SEEK_END) offset += memory.size;
  if (offset < 0 || offset > memory.size) return AVERROR(EINVAL);
  return memory.position = offset;
}

/// Throws WorkError when the muxer refuses.
void WriteTrial(const AVFormatContext& output, const AVStream& stream, std::span<const PacketPtr> packets,
                Memory& memory) {
  AVFormatContext* context = nullptr;
  Check(avformat_alloc_output_context2(&context, output.oformat, nullptr, nullptr), "trial");
  const MuxerPtr muxer(context);
  Check(avio_open_dyn_buf(&context->pb), "trial");
  context->pb->seekable = output.pb->seekable;
  int result = CopyParameters(stream, *Made(avformat_new_stream(context, nullptr)));
  if (result >= 0) result = avformat_write_header(context, nullptr);
  for (std::size_t i = 0; i < packets.size() && result >= 0; ++i) {
    const PacketPtr packet(Made(av_packet_clone(packets[i].get())));
    packet->stream_index = 0;
    av_packet_rescale_ts(packet.get(), stream.time_base, context->streams[0]->time_base);
    result = av_interleaved_write_frame(context, packet.get());
  }
  if (result >= 0) result = av_write_trailer(context);
  memory.size = avio_close_dyn_buf(context->pb, &memory.bytes);
  context->pb = nullptr;
  Check(result, "trial");
}

struct IoFreer {
  void operator()(AVIOContext* io) const {
    av_free(io->buffer);
    avio_context_free(&io);
  }
};

bool DecodesSound(AVFormatContext& format, const AVCodecParameters& wanted) {
  if (avformat_find_stream_info(&format, nullptr) < 0 || format.nb_streams != 1) return false;
  Decoder decoder(*format.streams[0], "trial", 1);
  const PacketPtr packet = NewPacket();
  const FramePtr frame = NewFrame();
  for (bool isEnd = false; !isEnd;) {
    isEnd = av_read_frame(&format, packet.get()) < 0;
    decoder.Send(isEnd ? nullptr : packet.get());
    av_packet_unref(packet.get());
    if (decoder.Receive(*frame))
      return frame->sample_rate == wanted.sample_rate &&
             frame->ch_layout.nb_channels == wanted.ch_layout.nb_channels;
  }
  return false;
}

}  // namespace

bool DecodesFrom(const AVFormatContext& output, const AVStream& stream, std::span<const PacketPtr> packets) {
  try {
    Memory memory;
    WriteTrial(output, stream, packets, memory);
    constexpr int kBufferBytes = 1 << 16;
    const std::unique_ptr<AVIOContext, IoFreer> io(
        Made(avio_alloc_context(static_cast<std::uint8_t*>(Made(av_malloc(kBufferBytes))), kBufferBytes, 0,
                                &memory, ReadMemory, nullptr, SeekMemory)));
    AVFormatContext* context = Made(avformat_alloc_context());
    context->pb = io.get();
    Check(avformat_open_input(&context, nullptr, nullptr, nullptr), "trial");
    const InputPtr input(context);
    return DecodesSound(*context, *stream.codecpar);
  } catch (const WorkError&) {
    return false;
  }
}
