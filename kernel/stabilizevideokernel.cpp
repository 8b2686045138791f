#include "kernel/stabilizevideokernel.h"

#include <new>
#include <vector>

#include "kernel/frame.h"
#include "kernel/framecompensation.h"
#include "kernel/gaussianpyramid.h"
#include "kernel/motionestimation.h"
#include "kernel/pathsmoothing.h"
#include "kernel/ring.h"

namespace {

using FrameCopy = std::unique_ptr<std::uint8_t[]>;

bool IsRegionInside(const Rect& roi, std::int32_t width, std::int32_t height) {
  return 0 <= roi.left && roi.left < roi.right && roi.right <= width && 0 <= roi.top &&
         roi.top < roi.bottom && roi.bottom <= height;
}

bool IsMarginUsable(std::int32_t margin, std::int32_t side) { return margin >= 0 && margin < side / 2; }

bool CanStabilize(const KernelParams& params) {
  return IsMarginUsable(params.cropMarginX, params.width) &&
         IsMarginUsable(params.cropMarginY, params.height) &&
         IsFrameSizeUsable(params.width, params.height) &&
         params.clippingOption <= static_cast<std::uint32_t>(ClippingOption::CropAndStretch) &&
         !FindPathWeights(params.windowLength, false).entries.empty();
}

RotationScratch MakeScratch(const KernelParams& params) {
  if (params.estimationCoefficients != static_cast<std::uint32_t>(EstimationCoefficients::XYTheta)) return {};
  return {params.roi.right - params.roi.left, params.roi.bottom - params.roi.top};
}

}  // namespace

/// State and buffers of one stream.
struct CStabilizeVideoKernel::Stream {
  explicit Stream(const KernelParams& kernelParams)
      : params(kernelParams),
        compensation(params),
        weights(FindPathWeights(params.windowLength, params.gaussianWeights != 0)),
        pyramid(MakePyramid(params.roi.right - params.roi.left, params.roi.bottom - params.roi.top,
                            FinestLevel(params.estimationQuality))),
        scratch(MakeScratch(params)),
        frameHistory(static_cast<std::size_t>(params.windowLength / 2 + 1)),
        motionRing(static_cast<std::size_t>(params.windowLength)) {
    motionRing.Fill({});
  }

  /// Appends the frame to the history and measures its motion. Once the history is full, the frame takes the
  /// oldest frame's memory.
  void Take(const std::uint8_t* pixels, bool repeatPrevious, const KernelOps& ops) {
    FrameCopy& copy = frameHistory.NextSlot();
    if (!copy)
      copy = std::make_unique_for_overwrite<std::uint8_t[]>(
          static_cast<std::size_t>(compensation.frame.SizeBytes()));
    const bool repeat = repeatPrevious && frameHistory.Size() > 0;
    BuildPyramid(pyramid, repeat ? frameHistory.Newest().get() : pixels, compensation.frame, params.roi,
                 copy.get(), ops);
    frameHistory.Append();
    if (frameHistory.Size() < 2) return;
    motionRing.NextSlot() =
        EstimateMotion(pyramid, params.estimationCoefficients, params.estimationQuality, scratch, ops);
    motionRing.Append();
  }

  void DeliverOldest(std::uint8_t* output, const KernelOps& ops) {
    latestCorrection = ComputeCorrection(motionRing, weights, params.width, params.height);
    CompensateFrame(compensation, frameHistory.Oldest().get(), latestCorrection, output, ops);
  }

  KernelParams params;
  Compensation compensation;
  PathWeights weights;
  std::vector<GaussianPyramidCalcParams> pyramid;
  RotationScratch scratch;
  Ring<FrameCopy> frameHistory;
  Ring<MotionRecord> motionRing;
  MotionRecord latestCorrection = {};
};

CStabilizeVideoKernel::CStabilizeVideoKernel(const KernelOps& ops) noexcept : m_pOps(&ops) {}

CStabilizeVideoKernel::~CStabilizeVideoKernel() = default;

bool CStabilizeVideoKernel::Initialize(const KernelParams& params) noexcept {
  m_passThrough = false;
  Release();
  if (!IsRegionInside(params.roi, params.width, params.height)) {
    m_passThrough = m_initialized = true;
    return true;
  }
  if (!CanStabilize(params)) return false;
  try {
    m_pStream = std::make_unique<Stream>(params);
  } catch (const std::bad_alloc&) {
    return false;
  }
  m_initialized = true;
  return true;
}

bool CStabilizeVideoKernel::ProcessFrame(std::uint8_t* pixels, bool repeatPrevious, bool* noOutput) noexcept {
  if (m_passThrough) return true;
  if (!m_initialized) return false;

  *noOutput = true;
  try {
    m_pStream->Take(pixels, repeatPrevious, *m_pOps);
  } catch (const std::bad_alloc&) {
    return false;
  }
  if (m_pStream->frameHistory.IsFull()) {
    m_pStream->DeliverOldest(pixels, *m_pOps);
    *noOutput = false;
  }
  return true;
}

void CStabilizeVideoKernel::Reset() noexcept {
  if (!m_pStream) return;
  m_pStream->frameHistory.Clear();
  m_pStream->motionRing.Fill({});
  m_pStream->latestCorrection = {};
}

void CStabilizeVideoKernel::Release() noexcept {
  m_pStream.reset();
  m_initialized = false;
}

MotionRecord CStabilizeVideoKernel::LatestMotion() const noexcept {
  return m_pStream ? m_pStream->motionRing.Newest() : MotionRecord{};
}

MotionRecord CStabilizeVideoKernel::LatestCorrection() const noexcept {
  return m_pStream ? m_pStream->latestCorrection : MotionRecord{};
}
