#pragma once

#include <gst/video/video.h>
#include <vector>

#include "host/settings.h"

// Describes GStreamer's raw video in the precise engine's terms.

/// Caps of all raw video that can be stabilized.
extern const char kRawVideo[];

/// The format that fixed caps describe. Keeps their chroma site, which the library replaces by a default when
/// the colorimetry is missing or invalid.
GstVideoInfo InfoOf(const GstCaps& caps);

/// The precise engine's description of such a stream. Chroma of 4:2:2 always counts as lying on luma samples.
StreamFacts FactsOf(const GstVideoInfo& info);

/// True when both chroma components alternate in one plane, as in NV12.
bool IsInterleaved(const GstVideoInfo& info);

/// The planes of a mapped frame in the engine's order, without interleaved chroma (see CSplitChroma).
precise::ConstPicture ConstPlanesOf(const GstVideoFrame& frame);
precise::Picture PlanesOf(const GstVideoFrame& frame);

/// Planes for the chroma of interleaved frames, one for each component. With other frames its methods do
/// nothing.
class CSplitChroma {
 public:
  CSplitChroma(const GstVideoInfo& info, const precise::PictureFormat& format);

  /// Split copies the chroma of `frame` into the planes; Merge copies the planes into the chroma of `frame`.
  void Split(const GstVideoFrame& frame);
  void Merge(const GstVideoFrame& frame) const;

  /// Adds the planes to a picture that has only luma.
  void AddTo(precise::ConstPicture& picture) const;
  void AddTo(precise::Picture& picture);

 private:
  std::size_t m_width = 0, m_height = 0;
  std::vector<std::uint8_t> m_samples[2];
};
