#include "engine/stabilizersettings.h"

#include <algorithm>
#include <utility>

namespace {

void NormalizeSide(std::int32_t& begin, std::int32_t& end) {
  begin = std::max(begin, 0);
  end = std::max(end, 0);
  if (begin > end) std::swap(begin, end);
  if (begin != end) return;
  if (begin < 1)
    ++end;
  else
    --begin;
}

std::int32_t ClampMargin(std::int32_t margin, std::int32_t side) {
  return std::max(margin >= side / 2 ? side / 2 - 1 : margin, 0);
}

}  // namespace

Rect NormalizeRoi(Rect roi, FrameSize frame) {
  NormalizeSide(roi.left, roi.right);
  NormalizeSide(roi.top, roi.bottom);
  const Rect clipped = {roi.left, roi.top, std::min(roi.right, frame.width),
                        std::min(roi.bottom, frame.height)};
  const bool isEmpty = clipped.left >= clipped.right || clipped.top >= clipped.bottom;
  return isEmpty ? Rect{} : clipped;
}

CropMargins ClampCropMargins(CropMargins margins, FrameSize frame) {
  return {ClampMargin(margins.leftRight, frame.width), ClampMargin(margins.topBottom, frame.height)};
}

bool IsCropping(const StabilizerSettings& settings) {
  return settings.CropEnabled && settings.ClippingOption == static_cast<std::int32_t>(ClippingOption::Crop);
}

bool ChangesFrameSize(const StabilizerSettings& settings) {
  return settings.Enabled && IsCropping(settings) &&
         (settings.LeftRightCropMargin > 0 || settings.TopBottomCropMargin > 0);
}

FrameSize GetOutputSize(const StabilizerSettings& settings, FrameSize frame) {
  if (!IsCropping(settings)) return frame;
  const CropMargins margins =
      ClampCropMargins({settings.LeftRightCropMargin, settings.TopBottomCropMargin}, frame);
  return {frame.width - 2 * margins.leftRight, frame.height - 2 * margins.topBottom};
}

KernelParams MakeKernelParams(const StabilizerSettings& settings, FrameSize frame) {
  CropMargins margins = {0, 0};
  if (settings.CropEnabled)
    margins = ClampCropMargins({settings.LeftRightCropMargin, settings.TopBottomCropMargin}, frame);
  return {
      .width = frame.width,
      .height = frame.height,
      .roi = settings.ROIEnabled ? NormalizeRoi(settings.ROI, frame) : Rect{0, 0, frame.width, frame.height},
      .estimationCoefficients = static_cast<std::uint32_t>(settings.GlobalEstimationCoefficients),
      .estimationQuality = static_cast<std::uint32_t>(settings.GlobalEstimationQuality),
      .gaussianWeights = 0,
      .windowLength = settings.PathSmoothingLevel,
      .backgroundColor = settings.BkFillColor,
      .cropMarginX = margins.leftRight,
      .cropMarginY = margins.topBottom,
      .interpolation = static_cast<std::uint32_t>(settings.InterpolationType),
      .clippingOption = static_cast<std::uint32_t>(settings.ClippingOption)};
}
