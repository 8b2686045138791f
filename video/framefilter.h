#pragma once

#include <deque>
#include <optional>
#include <string>

#include "video/filterchain.h"

/// What frames are made into.
struct PictureTarget {
  AVPixelFormat format = AV_PIX_FMT_NONE;
  int width = 0, height = 0;
  std::string filters;                           ///< such as turn the picture upright; empty: none
  std::string matrix;                            ///< of YUV made from RGB; empty: the library's choice
  AVColorRange range = AVCOL_RANGE_UNSPECIFIED;  ///< unspecified: as it comes
};

/// Makes frames of any kind into those of one target. A frame that is as wanted passes by reference. Once a
/// frame is interlaced, that one and all later ones go through a deinterlacer, a frame for a frame.
class FrameFilter {
 public:
  /// Times of frames, in and out, are in `timeBase`.
  FrameFilter(PictureTarget target, AVRational timeBase)
      : m_target(std::move(target)), m_timeBase(timeBase) {}

  /// Null: no frame follows. Throws WorkError.
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

  bool IsAsWanted(const Kind& kind) const;
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
