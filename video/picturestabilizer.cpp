#include "video/picturestabilizer.h"

#include <cstring>
#include <deque>
#include <optional>

#include "host/kernelstabilizer.h"
#include "host/motionlog.h"
#include "kernel/frame.h"
#include "video/rowteam.h"

namespace {

constexpr int kAlignment = 64;

std::int64_t BytesOf(AVPixelFormat format, int width, int height) {
  return Check(av_image_get_buffer_size(format, width, height, kAlignment), "cannot hold such frames");
}

/// Makes frames of one kind. Their memory returns to the pool when nothing refers to it any more.
class FramePool {
 public:
  FramePool(AVPixelFormat format, int width, int height)
      : m_format(format),
        m_width(width),
        m_height(height),
        m_pPool(Allocated(av_buffer_pool_init(
            static_cast<std::size_t>(BytesOf(format, width, height)) + kAlignment, nullptr))) {}

  FramePtr Take(const AVFrame& like) {
    FramePtr frame = NewFrame();
    Check(av_frame_copy_props(frame.get(), &like), "cannot hold a frame");
    frame->format = m_format;
    frame->width = m_width;
    frame->height = m_height;
    frame->buf[0] = Allocated(av_buffer_pool_get(m_pPool.get()));
    av_image_fill_arrays(frame->data, frame->linesize, frame->buf[0]->data, m_format, m_width, m_height,
                         kAlignment);
    return frame;
  }

 private:
  AVPixelFormat m_format;
  int m_width, m_height;
  PoolPtr m_pPool;
};

template <class Byte>
std::array<precise::PlaneOf<Byte>, precise::kMaxPlanes> PlanesOf(const AVFrame& frame) {
  std::array<precise::PlaneOf<Byte>, precise::kMaxPlanes> planes;
  for (std::size_t i = 0; i < planes.size(); ++i) planes[i] = {frame.data[i], frame.linesize[i]};
  return planes;
}

class PreciseStabilizer final : public PictureStabilizer {
 public:
  PreciseStabilizer(const Options& options, const StreamFacts& stream, const precise::Settings& settings,
                    AVPixelFormat format)
      : m_engine(stream.format, settings, options.simd, m_rows.Runner()),
        m_outputFormat(precise::OutputFormat(stream.format, settings)),
        m_pool(format, m_outputFormat.width, m_outputFormat.height) {
    if (!options.motionFile.empty()) m_log.emplace(options.motionFile, kPreciseColumns);
  }

  void Push(FramePtr frame) override {
    m_engine.Push(PlanesOf<const std::uint8_t>(*frame));
    m_lent.push_back(std::move(frame));
  }

  void End() override { m_engine.End(); }

  FramePtr Deliver() override {
    if (!m_engine.CanDeliver()) return nullptr;
    FramePtr frame = m_pool.Take(*m_lent.front());
    precise::FrameReport report = m_engine.Deliver(PlanesOf<std::uint8_t>(*frame));
    m_lent.pop_front();
    if (m_log && (frame->flags & AV_FRAME_FLAG_DISCARD) == 0) {
      if (!m_firstLogged) m_firstLogged = report;
      report.frame -= m_firstLogged->frame;
      report.shot -= m_firstLogged->shot;
      WriteReport(*m_log, report);
    }
    return frame;
  }

  void Finish() override {
    if (m_log) m_log->Close();
  }

 private:
  std::deque<FramePtr> m_lent;  // the engine reads them; declared first to outlive it
  RowTeam m_rows;
  precise::CStabilizer m_engine;
  precise::PictureFormat m_outputFormat;
  FramePool m_pool;
  std::optional<MotionLog> m_log;
  std::optional<precise::FrameReport> m_firstLogged;
};

Options WithSize(Options options, const StreamFacts& stream) {
  options.size = {stream.format.width, stream.format.height};
  return options;
}

class ClassicStabilizer final : public PictureStabilizer {
 public:
  ClassicStabilizer(const Options& options, const StabilizerSettings& settings)
      : m_frame(options.size.width, options.size.height),
        m_size(GetOutputSize(settings, options.size)),
        m_pool(AV_PIX_FMT_BGR24, m_size.width, m_size.height),
        m_stabilizer(settings, options.size, SelectOps(DetectCpuFeatures(), options.simd),
                     options.motionFile) {}

  void Push(FramePtr frame) override {
    for (int row = 0; row < frame->height; ++row)
      std::memcpy(m_stabilizer.InputFrame() + (frame->height - 1 - row) * m_frame.strideBytes,
                  frame->data[0] + std::ptrdiff_t{row} * frame->linesize[0],
                  static_cast<std::size_t>(frame->width) * kBytesPerPixel);
    // The pixels are copied, so only the frame's properties are held.
    FramePtr held = NewFrame();
    Check(av_frame_copy_props(held.get(), frame.get()), "cannot hold a frame");
    m_held.push_back(std::move(held));
    Process(false);
  }

  void End() override { m_hasEnded = true; }

  FramePtr Deliver() override {
    while (!m_ready && m_hasEnded && !m_held.empty()) Process(true);
    return std::move(m_ready);
  }

  void Finish() override { m_stabilizer.Finish(); }

 private:
  void Process(bool repeatNewest) {
    const std::optional<StabilizedFrame> stabilized = m_stabilizer.Process(repeatNewest);
    if (!stabilized) return;
    m_ready = m_pool.Take(*m_held.front());
    m_held.pop_front();
    for (int row = 0; row < m_size.height; ++row)
      std::memcpy(m_ready->data[0] + std::ptrdiff_t{row} * m_ready->linesize[0],
                  stabilized->pixels + (m_size.height - 1 - row) * stabilized->pitchBytes,
                  static_cast<std::size_t>(m_size.width) * kBytesPerPixel);
  }

  FrameGeometry m_frame;
  FrameSize m_size;
  FramePool m_pool;
  KernelStabilizer m_stabilizer;
  std::deque<FramePtr> m_held;
  FramePtr m_ready;
  bool m_hasEnded = false;
};

}  // namespace

StabilizerFacts FactsOf(const Options& options, const StreamFacts& stream, AVPixelFormat format) {
  const std::int64_t frameBytes = BytesOf(format, stream.format.width, stream.format.height);
  if (options.engine == Engine::Precise) {
    const precise::Settings settings = MakePreciseSettings(options, stream);
    const precise::PictureFormat output = precise::OutputFormat(stream.format, settings);
    const std::int64_t frames = std::int64_t{precise::DelayFrames(stream.format, settings)} + 1;
    return {output.width, output.height, frames, frames * frameBytes};
  }
  const StabilizerSettings settings = MakeClassicSettings(WithSize(options, stream));
  const FrameSize size = GetOutputSize(settings, {stream.format.width, stream.format.height});
  const std::int64_t frames = settings.PathSmoothingLevel / 2 + 1;
  return {size.width, size.height, frames, frames * frameBytes};
}

std::unique_ptr<PictureStabilizer> MakePictureStabilizer(const Options& options, const StreamFacts& stream,
                                                         AVPixelFormat format) {
  if (options.engine == Engine::Precise)
    return std::make_unique<PreciseStabilizer>(options, stream, MakePreciseSettings(options, stream), format);
  const Options sized = WithSize(options, stream);
  return std::make_unique<ClassicStabilizer>(sized, MakeClassicSettings(sized));
}
