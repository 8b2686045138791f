#pragma once

#include <string>

#include "video/av.h"

/// A chain of libavfilter's filters that frames go through.
class FilterChain {
 public:
  /// `source` is "buffer" or "abuffer", with its arguments; `sink` is "buffersink" or "abuffersink". Throws
  /// WorkError.
  FilterChain(const char* source, const std::string& arguments, const std::string& filters, const char* sink);

  /// Null ends the stream. Throws WorkError.
  void Push(AVFrame* frame);

  /// False when no frame is ready. Throws WorkError.
  bool Pull(AVFrame& frame);

  AVFilterContext& Sink() const { return *m_pSink; }

 private:
  GraphPtr m_pGraph;
  AVFilterContext *m_pSource = nullptr, *m_pSink = nullptr;
};
