#include "video/pixelformats.h"

#include <algorithm>
#include <bit>
#include <utility>
#include <vector>

#include "precise/stabilizer.h"

namespace {

constexpr std::pair<AVPixelFormat, AVPixelFormat> kFullRange[] = {
    {AV_PIX_FMT_YUVJ420P, AV_PIX_FMT_YUV420P}, {AV_PIX_FMT_YUVJ422P, AV_PIX_FMT_YUV422P},
    {AV_PIX_FMT_YUVJ444P, AV_PIX_FMT_YUV444P}, {AV_PIX_FMT_YUVJ440P, AV_PIX_FMT_YUV440P},
    {AV_PIX_FMT_YUVJ411P, AV_PIX_FMT_YUV411P},
};

/// True when each component has its own plane, of 8-bit or 16-bit integers in the machine's byte order.
bool IsPlanar(const AVPixFmtDescriptor& format) {
  constexpr std::uint64_t kOthers = AV_PIX_FMT_FLAG_PAL | AV_PIX_FMT_FLAG_BITSTREAM |
                                    AV_PIX_FMT_FLAG_HWACCEL | AV_PIX_FMT_FLAG_BAYER | AV_PIX_FMT_FLAG_FLOAT;
  if ((format.flags & kOthers) != 0 || format.nb_components < 1) return false;
  const int depth = format.comp[0].depth;
  const bool isBigEndian = (format.flags & AV_PIX_FMT_FLAG_BE) != 0;
  if (depth < 8 || depth > 16 || (depth > 8 && isBigEndian != (std::endian::native == std::endian::big)))
    return false;
  unsigned planes = 0;
  for (int i = 0; i < format.nb_components; ++i) {
    const AVComponentDescriptor& component = format.comp[i];
    if (component.depth != depth || component.shift != 0 || component.offset != 0 ||
        component.step != (depth > 8 ? 2 : 1))
      return false;
    planes |= 1U << component.plane;
  }
  return planes == (1U << format.nb_components) - 1;
}

}  // namespace

AVPixelFormat WithoutRange(AVPixelFormat format) {
  for (const auto& [full, plain] : kFullRange)
    if (format == full) return plain;
  return format;
}

bool MeansFullRange(AVPixelFormat format) { return WithoutRange(format) != format; }

AVColorRange RangeOf(const AVFrame& frame) {
  const auto format = static_cast<AVPixelFormat>(frame.format);
  const bool isGrey = !IsRgb(format) && av_pix_fmt_desc_get(format)->nb_components < 3;
  const bool isUntold = frame.color_range == AVCOL_RANGE_UNSPECIFIED;
  return MeansFullRange(format) || (isGrey && isUntold) ? AVCOL_RANGE_JPEG : frame.color_range;
}

std::optional<precise::PictureFormat> EngineFormat(AVPixelFormat format, int width, int height) {
  const AVPixFmtDescriptor* const description = av_pix_fmt_desc_get(format);
  if (!description || !IsPlanar(*description)) return std::nullopt;
  const precise::PictureFormat picture = {.width = width,
                                          .height = height,
                                          .planes = description->nb_components,
                                          .bitsPerSample = description->comp[0].depth,
                                          .chromaShiftX = description->log2_chroma_w,
                                          .chromaShiftY = description->log2_chroma_h};
  if (!precise::AreUsable(picture, precise::Settings{})) return std::nullopt;
  return picture;
}

bool IsRgb(AVPixelFormat format) {
  return (av_pix_fmt_desc_get(format)->flags & (AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_PAL)) != 0;
}

bool IsGrey(AVPixelFormat format) { return !IsRgb(format) && av_pix_fmt_desc_get(format)->nb_components < 3; }

bool HasFewColours(AVPixelFormat format) {
  const AVPixFmtDescriptor& description = *av_pix_fmt_desc_get(format);
  return IsRgb(format) && ((description.flags & AV_PIX_FMT_FLAG_PAL) != 0 || description.comp[0].depth < 8);
}

int BitsOf(AVPixelFormat format) { return av_pix_fmt_desc_get(format)->comp[0].depth; }

bool CutsChroma(AVPixelFormat format, int width, int height) {
  const AVPixFmtDescriptor& description = *av_pix_fmt_desc_get(format);
  return width % (1 << description.log2_chroma_w) != 0 || height % (1 << description.log2_chroma_h) != 0;
}

AVPixelFormat Nearest(AVPixelFormat source, std::span<const AVPixelFormat> candidates) {
  const bool hasAlpha = (av_pix_fmt_desc_get(source)->flags & AV_PIX_FMT_FLAG_ALPHA) != 0;
  if (HasFewColours(source)) source = hasAlpha ? kTrueColour : AV_PIX_FMT_BGR24;
  // Among candidates that lose equally little the library takes the first, so the one with fewest bits comes
  // first.
  std::vector<AVPixelFormat> ordered(candidates.begin(), candidates.end());
  std::ranges::stable_sort(ordered, {}, BitsOf);
  AVPixelFormat best = AV_PIX_FMT_NONE;
  for (const AVPixelFormat candidate : ordered) {
    if (candidate == source) return source;
    best = best == AV_PIX_FMT_NONE ? candidate
                                   : av_find_best_pix_fmt_of_2(best, candidate, source, hasAlpha, nullptr);
  }
  return best;
}

std::span<const AVPixelFormat> EngineFormats() {
  static const std::vector<AVPixelFormat> formats = [] {
    std::vector<AVPixelFormat> found;
    const AVPixFmtDescriptor* description = nullptr;
    while ((description = av_pix_fmt_desc_next(description))) {
      const AVPixelFormat format = av_pix_fmt_desc_get_id(description);
      if (!MeansFullRange(format) && EngineFormat(format, 16, 16)) found.push_back(format);
    }
    return found;
  }();
  return formats;
}
