#include "video/trial.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "host/workerror.h"
#include "video/decoder.h"
#include "video/streamcopy.h"

namespace {

/// A file in memory.
struct Memory {
  std::vector<std::uint8_t> bytes;
  std::size_t position = 0;
};

int ReadMemory(void* opaque, std::uint8_t* buffer, int wanted) {
  Memory& memory = *static_cast<Memory*>(opaque);
  const std::size_t left = memory.bytes.size() - std::min(memory.position, memory.bytes.size());
  const std::size_t count = std::min(static_cast<std::size_t>(wanted), left);
  if (count == 0) return AVERROR_EOF;
  std::memcpy(buffer, memory.bytes.data() + memory.position, count);
  memory.position += count;
  return static_cast<int>(count);
}

int WriteMemory(void* opaque, std::uint8_t* buffer, int size) {
  Memory& memory = *static_cast<Memory*>(opaque);
  const std::size_t end = memory.position + static_cast<std::size_t>(size);
  memory.bytes.resize(std::max(memory.bytes.size(), end));
  std::copy_n(buffer, size, memory.bytes.data() + memory.position);
  memory.position = end;
  return size;
}

std::int64_t SeekMemory(void* opaque, std::int64_t offset, int whence) {
  Memory& memory = *static_cast<Memory*>(opaque);
  const auto size = static_cast<std::int64_t>(memory.bytes.size());
  if (whence == AVSEEK_SIZE) return size;
  if (whence == SEEK_CUR) offset += static_cast<std::int64_t>(memory.position);
  if (whence == SEEK_END) offset += size;
  if (offset < 0 || offset > size) return AVERROR(EINVAL);
  memory.position = static_cast<std::size_t>(offset);
  return offset;
}

struct IoFreer {
  void operator()(AVIOContext* io) const {
    av_free(io->buffer);
    avio_context_free(&io);
  }
};
using IoPtr = std::unique_ptr<AVIOContext, IoFreer>;

IoPtr OpenMemory(Memory& memory, bool isOutput) {
  constexpr int kBufferBytes = 1 << 16;
  memory.position = 0;
  auto* const buffer = static_cast<std::uint8_t*>(Allocated(av_malloc(kBufferBytes)));
  return IoPtr(Allocated(avio_alloc_context(buffer, kBufferBytes, isOutput ? 1 : 0, &memory, ReadMemory,
                                            WriteMemory, SeekMemory)));
}

/// Writes the packets as a file. Throws WorkError when the muxer refuses them.
void WriteTrial(const AVFormatContext& output, const AVStream& stream, std::span<const PacketPtr> packets,
                Memory& memory) {
  AVFormatContext* context = nullptr;
  Check(avformat_alloc_output_context2(&context, output.oformat, nullptr, nullptr), "trial");
  const MuxerPtr muxer(context);
  const IoPtr io = OpenMemory(memory, true);
  context->pb = io.get();
  context->pb->seekable = output.pb->seekable;
  Check(CopyParameters(stream, *Allocated(avformat_new_stream(context, nullptr))), "trial");
  Check(avformat_write_header(context, nullptr), "trial");
  for (const PacketPtr& original : packets) {
    const PacketPtr packet(Allocated(av_packet_clone(original.get())));
    packet->stream_index = 0;
    av_packet_rescale_ts(packet.get(), stream.time_base, context->streams[0]->time_base);
    Check(av_interleaved_write_frame(context, packet.get()), "trial");
  }
  Check(av_write_trailer(context), "trial");
  avio_flush(context->pb);
}

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
    const IoPtr io = OpenMemory(memory, false);
    AVFormatContext* context = Allocated(avformat_alloc_context());
    context->pb = io.get();
    Check(avformat_open_input(&context, nullptr, nullptr, nullptr), "trial");
    const InputPtr input(context);
    return DecodesSound(*context, *stream.codecpar);
  } catch (const WorkError&) {
    return false;
  }
}
