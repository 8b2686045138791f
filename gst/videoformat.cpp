#include "gst/videoformat.h"

#include <algorithm>

#if G_BYTE_ORDER == G_LITTLE_ENDIAN
#define VSTABILIZE_ORDER "LE"
#else
#define VSTABILIZE_ORDER "BE"
#endif
#define VSTABILIZE_DEEP(bits) ", I420_" bits ", I422_" bits ", Y444_" bits ", GBR_" bits

const char kRawVideo[] = "video/x-raw, format=(string){ I420, YV12, Y42B, Y444, NV12, GRAY8, GBR"  //
    VSTABILIZE_DEEP("10" VSTABILIZE_ORDER)                                                         //
    VSTABILIZE_DEEP("12" VSTABILIZE_ORDER)                                                         //
    " }, width=(int)[ 1, 32767 ], height=(int)[ 1, 32767 ], "
    "framerate=(fraction)[ 0/1, 2147483647/1 ], interlace-mode=(string)progressive";

namespace {

/// The library's number of the engine's plane: the engine's order of RGB is green, blue, red.
guint Component(const GstVideoInfo& info, guint plane) {
  return GST_VIDEO_INFO_IS_RGB(&info) ? (plane + 1) % 3 : plane;
}

/// The first chroma sample's distance from the first luma sample, in luma samples.
double Site(int shift, bool isCosited) { return isCosited ? 0 : ((1 << shift) - 1) / 2.0; }

ColourMatrix MatrixOf(const GstVideoInfo& info) {
  if (GST_VIDEO_INFO_IS_RGB(&info)) return ColourMatrix::Rgb;
  switch (info.colorimetry.matrix) {
    case GST_VIDEO_COLOR_MATRIX_BT709:
      return ColourMatrix::Bt709;
    case GST_VIDEO_COLOR_MATRIX_BT2020:
      return ColourMatrix::Bt2020;
    default:
      return ColourMatrix::Bt601;
  }
}

template <class Byte>
std::array<precise::PlaneOf<Byte>, precise::kMaxPlanes> Planes(const GstVideoFrame& frame) {
  std::array<precise::PlaneOf<Byte>, precise::kMaxPlanes> planes;
  const auto count = IsInterleaved(frame.info) ? 1U : GST_VIDEO_INFO_N_COMPONENTS(&frame.info);
  for (guint i = 0; i < count; ++i) {
    const guint component = Component(frame.info, i);
    planes[i] = {static_cast<Byte*>(GST_VIDEO_FRAME_COMP_DATA(&frame, component)),
                 GST_VIDEO_FRAME_COMP_STRIDE(&frame, component)};
  }
  return planes;
}

std::uint8_t* ChromaRow(const GstVideoFrame& frame, guint component, std::size_t row) {
  return static_cast<std::uint8_t*>(GST_VIDEO_FRAME_COMP_DATA(&frame, component)) +
         static_cast<std::ptrdiff_t>(row) * GST_VIDEO_FRAME_COMP_STRIDE(&frame, component);
}

}  // namespace

GstVideoInfo InfoOf(const GstCaps& caps) {
  GstVideoInfo info = {};
  gst_video_info_init(&info);
  gst_video_info_from_caps(&info, &caps);
  const char* const site = gst_structure_get_string(gst_caps_get_structure(&caps, 0), "chroma-site");
  if (site) info.chroma_site = gst_video_chroma_site_from_string(site);
  return info;
}

StreamFacts FactsOf(const GstVideoInfo& info) {
  StreamFacts facts;
  precise::PictureFormat& format = facts.format;
  format.width = info.width;
  format.height = info.height;
  format.planes = static_cast<int>(GST_VIDEO_INFO_N_COMPONENTS(&info));
  format.bitsPerSample = static_cast<int>(GST_VIDEO_INFO_COMP_DEPTH(&info, 0));
  if (GST_VIDEO_INFO_IS_YUV(&info)) {
    format.chromaShiftX = static_cast<int>(GST_VIDEO_FORMAT_INFO_W_SUB(info.finfo, 1));
    format.chromaShiftY = static_cast<int>(GST_VIDEO_FORMAT_INFO_H_SUB(info.finfo, 1));
    const bool is422 = format.chromaShiftX > 0 && format.chromaShiftY == 0;
    format.chromaSiteX =
        Site(format.chromaShiftX, is422 || (info.chroma_site & GST_VIDEO_CHROMA_SITE_H_COSITED) != 0);
    format.chromaSiteY = Site(format.chromaShiftY, (info.chroma_site & GST_VIDEO_CHROMA_SITE_V_COSITED) != 0);
  }
  format.pixelAspect = std::clamp(static_cast<double>(info.par_n) / info.par_d,
                                  1 / precise::kLargestPixelAspect, precise::kLargestPixelAspect);
  facts.rateNumerator = info.fps_n;
  facts.rateDenominator = info.fps_d;
  facts.matrix = MatrixOf(info);
  facts.isFullRange = info.colorimetry.range == GST_VIDEO_COLOR_RANGE_0_255;
  return facts;
}

bool IsInterleaved(const GstVideoInfo& info) {
  return GST_VIDEO_INFO_N_PLANES(&info) < GST_VIDEO_INFO_N_COMPONENTS(&info);
}

precise::ConstPicture ConstPlanesOf(const GstVideoFrame& frame) { return Planes<const std::uint8_t>(frame); }
precise::Picture PlanesOf(const GstVideoFrame& frame) { return Planes<std::uint8_t>(frame); }

CSplitChroma::CSplitChroma(const GstVideoInfo& info, const precise::PictureFormat& format) {
  if (!IsInterleaved(info)) return;
  m_width = static_cast<std::size_t>(format.PlaneWidth(1));
  m_height = static_cast<std::size_t>(format.PlaneHeight(1));
  for (auto& samples : m_samples) samples.resize(m_width * m_height);
}

void CSplitChroma::Split(const GstVideoFrame& frame) {
  for (std::size_t row = 0; row < m_height; ++row)
    for (guint i = 0; i < 2; ++i) {
      const std::uint8_t* const from = ChromaRow(frame, i + 1, row);
      std::uint8_t* const to = m_samples[i].data() + row * m_width;
      for (std::size_t column = 0; column < m_width; ++column) to[column] = from[2 * column];
    }
}

void CSplitChroma::Merge(const GstVideoFrame& frame) const {
  for (std::size_t row = 0; row < m_height; ++row)
    for (guint i = 0; i < 2; ++i) {
      const std::uint8_t* const from = m_samples[i].data() + row * m_width;
      std::uint8_t* const to = ChromaRow(frame, i + 1, row);
      for (std::size_t column = 0; column < m_width; ++column) to[2 * column] = from[column];
    }
}

void CSplitChroma::AddTo(precise::ConstPicture& picture) const {
  for (std::size_t i = 0; m_width > 0 && i < 2; ++i)
    picture[i + 1] = {m_samples[i].data(), static_cast<std::ptrdiff_t>(m_width)};
}

void CSplitChroma::AddTo(precise::Picture& picture) {
  for (std::size_t i = 0; m_width > 0 && i < 2; ++i)
    picture[i + 1] = {m_samples[i].data(), static_cast<std::ptrdiff_t>(m_width)};
}
