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

// Owners of the libraries' objects, and what their errors mean.

/// For functions that free an object and clear the pointer to it.
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

/// The object, which a library made. Throws std::bad_alloc for null.
template <class T>
T* Made(T* object) {
  if (!object) throw std::bad_alloc();
  return object;
}

inline FramePtr NewFrame() { return FramePtr(Made(av_frame_alloc())); }
inline PacketPtr NewPacket() { return PacketPtr(Made(av_packet_alloc())); }

/// Options by name.
class Dictionary {
 public:
  Dictionary() = default;
  ~Dictionary() { av_dict_free(&m_pEntries); }
  Dictionary(const Dictionary&) = delete;
  Dictionary& operator=(const Dictionary&) = delete;

  /// What stands there already stays.
  void SetDefault(const std::string& name, const std::string& value) {
    av_dict_set(&m_pEntries, name.c_str(), value.c_str(), AV_DICT_DONT_OVERWRITE);
  }
  void Set(const std::string& name, const std::string& value) {
    av_dict_set(&m_pEntries, name.c_str(), value.c_str(), 0);
  }
  AVDictionary** Entries() { return &m_pEntries; }

  /// The name of an entry that is left; empty: none is.
  std::string First() const {
    const AVDictionaryEntry* entry = av_dict_get(m_pEntries, "", nullptr, AV_DICT_IGNORE_SUFFIX);
    return entry ? entry->key : "";
  }

 private:
  AVDictionary* m_pEntries = nullptr;
};

/// Takes the libraries' messages in, so that none reaches the terminal as it is.
void KeepLibraryMessages();

/// What an error code means, and the libraries' last message where there was one since the last call.
std::string ReasonOf(int error);

/// An encoder that is no experiment; null: there is none.
const AVCodec* FindEncoder(AVCodecID codec);

/// The result, if it is no error. Throws WorkError: `what`, a colon and the reason.
int Check(int result, const std::string& what);

/// The name of a file, or of the standard stream that it stands for.
inline std::string StreamName(const std::string& fileName, const char* stream) {
  return fileName == kStandardStream ? std::string("the ") + stream : fileName;
}

inline constexpr AVRational kMilliseconds = {1, 1000};

/// 0 for unknown.
inline double ToSeconds(std::int64_t time, AVRational base) {
  return time == AV_NOPTS_VALUE ? 0 : static_cast<double>(time) * av_q2d(base);
}
