#pragma once

#include <gst/video/video.h>
#include <vector>

#include "host/settings.h"

// How the library's raw video lies in memory, as the precise engine takes it.

/// Caps of all raw video that can be stabilized.
extern const char kRawVideo[];

/// What fixed caps of such video tell. The library forgets the chroma site where it knows the colours badly.
GstVideoInfo InfoOf(const GstCaps& caps);

/// What a stream of such frames tells about itself. Chroma of 4:2:2 lies on luma samples, whatever the caps
/// tell.
StreamFacts FactsOf(const GstVideoInfo& info);

/// True where both chroma components share a plane, sample by sample.
bool IsInterleaved(const GstVideoInfo& info);

/// The planes of a mapped frame in the engine's order. Those that share a plane are left out.
precise::ConstPicture ConstPlanesOf(const GstVideoFrame& frame);
precise::Picture PlanesOf(const GstVideoFrame& frame);

/// Chroma of an interleaved frame in planes of its own. Other frames need none, and get none.
class CSplitChroma {
 public:
  CSplitChroma(const GstVideoInfo& info, const precise::PictureFormat& format);

  /// Takes the samples of `frame`, or gives them to it.
  void Split(const GstVideoFrame& frame);
  void Merge(const GstVideoFrame& frame) const;

  /// Puts the planes to those of a picture that lacks them.
  void AddTo(precise::ConstPicture& picture) const;
  void AddTo(precise::Picture& picture);

 private:
  std::size_t m_width = 0, m_height = 0;
  std::vector<std::uint8_t> m_samples[2];
};
