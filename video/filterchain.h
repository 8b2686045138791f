#pragma once

#include <string>

#include "video/av.h"

/// Frames through a chain of the library's filters.
class FilterChain {
 public:
  /// `source` is "buffer" or "abuffer", with its arguments; `sink` accordingly. Throws WorkError.
  FilterChain(const char* source, const std::string& arguments, const std::string& filters, const char* sink);

  /// Null: no frame follows. Throws WorkError.
  void Push(AVFrame* frame);

  /// False when none is ready. Throws WorkError.
  bool Pull(AVFrame& frame);

  AVFilterContext& Sink() const { return *m_pSink; }

 private:
  GraphPtr m_pGraph;
  AVFilterContext *m_pSource = nullptr, *m_pSink = nullptr;
};
