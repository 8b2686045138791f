#include "video/framefilter.h"

#include <utility>

#include "video/pixelformats.h"

namespace {

std::string Fraction(AVRational value) { return std::to_string(value.num) + '/' + std::to_string(value.den); }

/// The scaler's name for a matrix, the same for equal coefficients; empty for those that it does not know.
std::string ScalerMatrix(AVColorSpace matrix) {
  switch (matrix) {
    case AVCOL_SPC_BT709:
    case AVCOL_SPC_SMPTE240M:
    case AVCOL_SPC_FCC:
      return av_color_space_name(matrix);
    case AVCOL_SPC_BT470BG:
    case AVCOL_SPC_SMPTE170M:
      return "bt601";
    case AVCOL_SPC_BT2020_NCL:
    case AVCOL_SPC_BT2020_CL:
      return "bt2020";
    default:
      return "";
  }
}

}  // namespace

bool FrameFilter::MatchesTarget(const Kind& kind) const {
  const bool isRange = m_target.range == AVCOL_RANGE_UNSPECIFIED || kind.range == m_target.range;
  const std::string from = ScalerMatrix(kind.matrix), to = ScalerMatrix(m_target.matrix);
  const bool isMatrix = IsRgb(m_target.format) || from.empty() || to.empty() || from == to;
  return kind.format == m_target.format && kind.width == m_target.width && kind.height == m_target.height &&
         isRange && isMatrix && m_target.filters.empty() && !kind.isInterlaced;
}

void FrameFilter::Push(FramePtr frame) {
  if (!frame) return Drain();
  frame->color_range = RangeOf(*frame);
  frame->format = WithoutRange(static_cast<AVPixelFormat>(frame->format));
  m_deinterlaces = m_deinterlaces || frame->interlaced_frame != 0;
  const Kind kind = {frame->format,      frame->width,      frame->height,
                     frame->color_range, frame->colorspace, m_deinterlaces};
  if (kind != m_kind) {
    Drain();
    m_kind = kind;
    if (!MatchesTarget(kind)) Build(*frame, kind);
  }
  if (!m_chain) return m_ready.push_back(std::move(frame));
  m_chain->Push(frame.get());
  Collect();
}

FramePtr FrameFilter::Pull() {
  if (m_ready.empty()) return nullptr;
  FramePtr frame = std::move(m_ready.front());
  m_ready.pop_front();
  return frame;
}

void FrameFilter::Build(const AVFrame& frame, const Kind& kind) {
  const AVRational aspect = frame.sample_aspect_ratio.num > 0 ? frame.sample_aspect_ratio : AVRational{0, 1};
  const std::string arguments = "video_size=" + std::to_string(kind.width) + 'x' +
                                std::to_string(kind.height) + ":pix_fmt=" + std::to_string(kind.format) +
                                ":time_base=" + Fraction(m_timeBase) + ":pixel_aspect=" + Fraction(aspect);
  std::string filters = kind.isInterlaced ? "bwdif=mode=send_frame:deint=interlaced," : "";
  if (!m_target.filters.empty()) filters += m_target.filters + ',';
  const auto source = static_cast<AVPixelFormat>(kind.format);
  if (HasFewColours(source))
    filters += std::string("format=pix_fmts=") + av_get_pix_fmt_name(kTrueColour) + ',';
  filters += "scale=" + std::to_string(m_target.width) + ':' + std::to_string(m_target.height) +
             ":flags=bicubic+accurate_rnd+full_chroma_int";
  if (const std::string matrix = ScalerMatrix(m_target.matrix); !matrix.empty())
    filters += ":out_color_matrix=" + matrix;
  // YUV made from RGB is to have limited range, although RGB itself has full range.
  const AVColorRange sourceRange = IsRgb(source) ? AVCOL_RANGE_MPEG : kind.range;
  const AVColorRange range = m_target.range != AVCOL_RANGE_UNSPECIFIED ? m_target.range : sourceRange;
  if (range != AVCOL_RANGE_UNSPECIFIED && !IsRgb(m_target.format))
    filters += range == AVCOL_RANGE_JPEG ? ":out_range=full" : ":out_range=limited";
  filters += std::string(",format=pix_fmts=") + av_get_pix_fmt_name(m_target.format);
  m_chain.emplace("buffer", arguments, filters, "buffersink");
}

void FrameFilter::Collect() {
  FramePtr frame = NewFrame();
  while (m_chain->Pull(*frame)) {
    // The deinterlacer halves the time base.
    if (frame->pts != AV_NOPTS_VALUE)
      frame->pts = av_rescale_q(frame->pts, av_buffersink_get_time_base(&m_chain->Sink()), m_timeBase);
    frame->interlaced_frame = frame->top_field_first = 0;
    // The scaler leaves the source's matrix in the frame. A later conversion would start from that.
    if (!IsRgb(m_target.format) && !ScalerMatrix(m_target.matrix).empty())
      frame->colorspace = m_target.matrix;
    m_ready.push_back(std::move(frame));
    frame = NewFrame();
  }
}

void FrameFilter::Drain() {
  if (!m_chain) return;
  m_chain->Push(nullptr);
  Collect();
  m_chain.reset();
}
