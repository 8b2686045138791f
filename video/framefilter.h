#pragma once

#include <deque>
#include <optional>
#include <string>

#include "video/filterchain.h"

/// The frames that a FrameFilter makes.
struct PictureTarget {
  AVPixelFormat format = AV_PIX_FMT_NONE;
  int width = 0, height = 0;
  std::string filters;                           ///< that run before the conversion; empty: none
  AVColorSpace matrix = AVCOL_SPC_UNSPECIFIED;   ///< of YUV; unspecified: the source's
  AVColorRange range = AVCOL_RANGE_UNSPECIFIED;  ///< unspecified: the source's
};

/// Converts frames of any kind to one target. A frame that matches the target already passes by reference.
/// From the first interlaced frame on, all frames go through a deinterlacer, which gives one frame for each.
class FrameFilter {
 public:
  /// The frames' times, in and out, are in `timeBase`.
  FrameFilter(PictureTarget target, AVRational timeBase)
      : m_target(std::move(target)), m_timeBase(timeBase) {}

  /// Null ends the stream. Throws WorkError.
  void Push(FramePtr frame);

  /// The next frame; null when none is ready.
  FramePtr Pull();

  bool Deinterlaces() const { return m_deinterlaces; }

 private:
  struct Kind {
    int format, width, height;
    AVColorRange range;
    AVColorSpace matrix;
    bool isInterlaced;
    bool operator==(const Kind&) const = default;
  };

  bool MatchesTarget(const Kind& kind) const;
  void Build(const AVFrame& frame, const Kind& kind);
  void Collect();
  void Drain();

  PictureTarget m_target;
  AVRational m_timeBase;
  bool m_deinterlaces = false;
  std::optional<Kind> m_kind;
  std::optional<FilterChain> m_chain;
  std::deque<FramePtr> m_ready;
};
