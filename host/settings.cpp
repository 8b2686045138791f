#include "host/settings.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "kernel/pathsmoothing.h"

namespace {

std::string SizeText(std::int32_t width, std::int32_t height) {
  return std::to_string(width) + 'x' + std::to_string(height);
}

void CheckRoi(const Rect& roi, std::int32_t width, std::int32_t height) {
  if (roi.right <= 0 || roi.bottom <= 0 || roi.left >= width || roi.top >= height)
    throw UsageError("--roi: the region lies outside the " + SizeText(width, height) + " frame");
}

/// Converts margins to pixels of a frame with these sides.
Margins InPixels(Margins margins, std::int32_t width, std::int32_t height) {
  if (!margins.isPercent) return margins;
  return {width * margins.x / 100, height * margins.y / 100};
}

void CheckMargins(const Margins& margins, const precise::PictureFormat& format) {
  if (2 * margins.x < format.width && 2 * margins.y < format.height) return;
  Refuse("--crop", std::to_string(std::lround(margins.x)) + ',' + std::to_string(std::lround(margins.y)),
         "nothing is left of the " + SizeText(format.width, format.height) +
             " frame; give less than half of each side");
}

/// The even number of frames nearest to one second, within 16 to 64; 32 if the rate is unknown.
std::int32_t DefaultWindow(const StreamFacts& stream) {
  constexpr std::int64_t kShortest = 16, kLongest = 64, kUnknownRate = 32;
  const std::int64_t frames = stream.rateNumerator, seconds = stream.rateDenominator;
  if (frames <= 0 || seconds <= 0) return kUnknownRate;
  if (frames / seconds >= kLongest) return kLongest;
  return static_cast<std::int32_t>(std::clamp((frames + seconds) / (2 * seconds) * 2, kShortest, kLongest));
}

/// The weights of red and blue in luma.
struct LumaWeights {
  double red, blue;
};

/// The samples of a colour in each plane of the stream. Alpha is 0, so that uncovered pixels are transparent.
std::array<std::uint16_t, precise::kMaxPlanes> ColourSamples(const std::array<std::uint8_t, 3>& blueGreenRed,
                                                             const StreamFacts& stream) {
  static constexpr LumaWeights kWeights[] = {{0.299, 0.114}, {0.2126, 0.0722}, {0.2627, 0.0593}, {0, 0}};
  const auto [redWeight, blueWeight] = kWeights[static_cast<std::size_t>(stream.matrix)];
  const double blue = blueGreenRed[0] / 255.0, green = blueGreenRed[1] / 255.0, red = blueGreenRed[2] / 255.0;
  const double luma = redWeight * red + (1 - redWeight - blueWeight) * green + blueWeight * blue;
  const double blueDifference = (blue - luma) / (2 * (1 - blueWeight));
  const double redDifference = (red - luma) / (2 * (1 - redWeight));

  const double step = 1 << (stream.format.bitsPerSample - 8);  // from one 8-bit value to the next
  const double highest = 256 * step - 1;
  const double black = stream.isFullRange ? 0 : 16 * step;
  const double lumaSpan = stream.isFullRange ? highest : 219 * step;
  const double grey = 128 * step, chromaSpan = stream.isFullRange ? highest : 224 * step;
  const auto sample = [highest](double value) {
    return static_cast<std::uint16_t>(std::clamp(std::floor(value + 0.5), 0.0, highest));
  };
  if (stream.matrix == ColourMatrix::Rgb)
    return {sample(black + lumaSpan * green), sample(black + lumaSpan * blue),
            sample(black + lumaSpan * red)};
  const std::uint16_t y = sample(black + lumaSpan * luma);
  if (stream.format.planes < 3) return {y};
  return {y, sample(grey + chromaSpan * blueDifference), sample(grey + chromaSpan * redDifference)};
}

void SetEstimation(const Options& options, StabilizerSettings& settings) {
  settings.PathSmoothingLevel = options.window.value_or(settings.PathSmoothingLevel);
  if (FindPathWeights(settings.PathSmoothingLevel, false).entries.empty())
    Refuse("--window", std::to_string(settings.PathSmoothingLevel),
           "choose 4, 8, 12, 16, 24, 32, 64 or 128 frames");
  if (options.rotation.value_or(false))
    settings.GlobalEstimationCoefficients = static_cast<std::int32_t>(EstimationCoefficients::XYTheta);
  settings.GlobalEstimationQuality = options.quality.value_or(settings.GlobalEstimationQuality);
  if (!options.roi) return;
  CheckRoi(*options.roi, options.size.width, options.size.height);
  std::optional<Rect> roi = options.roi;
  if (options.engine == Engine::Transform) roi = EqualizeRightAndBottom(*roi, options.size);
  if (!roi)
    throw UsageError(
        "--roi: the transform has one number for the right and the bottom edge; choose --engine kernel");
  settings.ROI = *roi;
  settings.ROIEnabled = true;
}

void SetPicture(const Options& options, StabilizerSettings& settings) {
  static constexpr ClippingOption kClippings[] = {ClippingOption::CropAndStretch, ClippingOption::Crop,
                                                  ClippingOption::Outline};
  if (options.margins) {
    const Margins margins = InPixels(*options.margins, options.size.width, options.size.height);
    settings.LeftRightCropMargin = static_cast<std::int32_t>(std::lround(margins.x));
    settings.TopBottomCropMargin = static_cast<std::int32_t>(std::lround(margins.y));
    settings.CropEnabled = true;
  }
  if (options.clipping)
    settings.ClippingOption =
        static_cast<std::int32_t>(kClippings[static_cast<std::size_t>(*options.clipping)]);
  if (options.interpolation == precise::Interpolation::Bicubic)
    Refuse("--interpolation", "bicubic", "the classic engine has nearest and bilinear");
  if (options.interpolation) settings.InterpolationType = static_cast<std::int32_t>(*options.interpolation);
  if (options.keepBackground)
    Refuse("--background", "keep", "the classic engine fills with a colour, such as 000000");
  settings.BkFillColor = options.background;
}

}  // namespace

std::optional<Rect> EqualizeRightAndBottom(Rect roi, FrameSize size) {
  for (const std::int32_t edge : {roi.right, roi.bottom}) {
    if (std::min(edge, size.width) == std::min(roi.right, size.width) &&
        std::min(edge, size.height) == std::min(roi.bottom, size.height))
      return Rect{roi.left, roi.top, edge, edge};
  }
  return std::nullopt;
}

StabilizerSettings MakeClassicSettings(const Options& options) {
  StabilizerSettings settings;
  SetEstimation(options, settings);
  SetPicture(options, settings);
  return settings;
}

precise::Settings MakePreciseSettings(const Options& options, const StreamFacts& stream) {
  const precise::PictureFormat& format = stream.format;
  precise::Settings settings;
  settings.window = options.window.value_or(DefaultWindow(stream));
  if (settings.window < 2 || settings.window > 256 || settings.window % 2 != 0)
    Refuse("--window", std::to_string(settings.window), "give an even number of frames, 2 to 256");

  const Margins margins =
      InPixels(options.margins.value_or(Margins{kDefaultCropPercent, kDefaultCropPercent, true}),
               format.width, format.height);
  CheckMargins(margins, format);
  settings.marginX = margins.x;
  settings.marginY = margins.y;
  settings.clipping = options.clipping.value_or(settings.clipping);
  settings.interpolation = options.interpolation.value_or(settings.interpolation);
  settings.background = ColourSamples(options.background, stream);
  settings.keepBackground = options.keepBackground;
  settings.correctRoll = options.rotation.value_or(settings.correctRoll);
  settings.tripod = options.tripod;
  settings.findCuts = options.findCuts;
  if (options.roi) CheckRoi(*options.roi, format.width, format.height);
  settings.estimateFrom = options.roi;
  if (!AreUsable(format, settings))
    throw UsageError("frames of " + SizeText(format.width, format.height) +
                     " cannot be stabilized with these margins; give smaller ones with --crop");
  return settings;
}
