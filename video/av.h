#pragma once

#include <memory>
#include <new>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavformat/avformat.h>
#include <libavutil/avstring.h>
#include <libavutil/display.h>
#include <libavutil/imgutils.h>
#include <libavutil/mastering_display_metadata.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
}

#include "host/options.h"

// Owners of the objects of FFmpeg's libraries, and the texts of their errors.

/// Deleter that calls a function which frees an object and clears the pointer to it.
template <auto free>
struct Freer {
  template <class T>
  void operator()(T* object) const {
    free(&object);
  }
};

using FramePtr = std::unique_ptr<AVFrame, Freer<av_frame_free>>;
using PacketPtr = std::unique_ptr<AVPacket, Freer<av_packet_free>>;
using CodecPtr = std::unique_ptr<AVCodecContext, Freer<avcodec_free_context>>;
using GraphPtr = std::unique_ptr<AVFilterGraph, Freer<avfilter_graph_free>>;
using InputPtr = std::unique_ptr<AVFormatContext, Freer<avformat_close_input>>;
using PoolPtr = std::unique_ptr<AVBufferPool, Freer<av_buffer_pool_uninit>>;

struct MuxerFreer {
  void operator()(AVFormatContext* muxer) const { avformat_free_context(muxer); }
};
using MuxerPtr = std::unique_ptr<AVFormatContext, MuxerFreer>;

/// Returns an object that a library allocated. Throws std::bad_alloc when it is null.
template <class T>
T* Allocated(T* object) {
  if (!object) throw std::bad_alloc();
  return object;
}

inline FramePtr NewFrame() { return FramePtr(Allocated(av_frame_alloc())); }
inline PacketPtr NewPacket() { return PacketPtr(Allocated(av_packet_alloc())); }

/// Options by name, as the libraries' functions take them.
class Dictionary {
 public:
  Dictionary() = default;
  ~Dictionary() { av_dict_free(&m_pEntries); }
  Dictionary(const Dictionary&) = delete;
  Dictionary& operator=(const Dictionary&) = delete;

  /// Keeps a value that is set already.
  void SetDefault(const std::string& name, const std::string& value) {
    av_dict_set(&m_pEntries, name.c_str(), value.c_str(), AV_DICT_DONT_OVERWRITE);
  }
  void Set(const std::string& name, const std::string& value) {
    av_dict_set(&m_pEntries, name.c_str(), value.c_str(), 0);
  }
  AVDictionary** Entries() { return &m_pEntries; }

  /// The name of the first entry; empty when there is none. Opening a codec removes the options that it has.
  std::string First() const {
    const AVDictionaryEntry* entry = av_dict_get(m_pEntries, "", nullptr, AV_DICT_IGNORE_SUFFIX);
    return entry ? entry->key : "";
  }

 private:
  AVDictionary* m_pEntries = nullptr;
};

/// From now on the libraries print nothing. Their last error message is kept for ReasonOf.
void CaptureLibraryMessages();

/// The text of an error code, with the libraries' last error message if there was one since the last call.
std::string ReasonOf(int error);

/// An encoder that is not marked as experimental; null when there is none.
const AVCodec* FindEncoder(AVCodecID codec);

/// Returns the result of a library's function. Throws WorkError when it is an error code: `what`, a colon and
/// the reason.
int Check(int result, const std::string& what);

/// The file's name; for "-" the name of the standard stream, "the " and `stream`.
inline std::string StreamName(const std::string& fileName, const char* stream) {
  return fileName == kStandardStream ? std::string("the ") + stream : fileName;
}

inline constexpr AVRational kMilliseconds = {1, 1000};

/// 0 for an unknown time.
inline double ToSeconds(std::int64_t time, AVRational base) {
  return time == AV_NOPTS_VALUE ? 0 : static_cast<double>(time) * av_q2d(base);
}
