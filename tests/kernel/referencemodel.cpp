#include "referencemodel.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <map>
#include <utility>

#include "kernel/leastsquares.h"

namespace reference {
namespace {

constexpr double kDegreesPerRadian = 57.29577951;
constexpr double kHalfDegreeInRadians = 0.01745329251994 * 0.5;
constexpr std::int32_t kUnusable = -1;
constexpr int kMaxIterations = 30;
constexpr int kMaxOscillations = 2;

// Nonzero first half of each Gaussian row, by window length; zeros stand before it and the second half
// mirrors it with the sign changed.
const std::map<std::int32_t, std::vector<std::int32_t>> kGaussianHalfRows = {
    {4, {13, 41}},
    {8, {3, 12, 27, 50}},
    {12, {1, 3, 9, 19, 34, 53}},
    {16, {1, 3, 7, 14, 24, 38, 55}},
    {24, {1, 2, 4, 7, 12, 20, 30, 42, 57}},
    {32, {1, 1, 2, 4, 7, 11, 17, 24, 34, 45, 58}},
    {64, {1, 1, 2, 3, 4, 6, 8, 12, 16, 21, 27, 34, 42, 51, 59}},
    {128, {1, 1, 1, 2, 2, 3, 4, 6, 8, 10, 12, 15, 18, 22, 27, 31, 37, 42, 48, 54, 61}}};

std::vector<std::int32_t> WeightRow(std::int32_t n, bool gaussian) {
  std::vector<std::int32_t> row(static_cast<std::size_t>(n), 0);
  if (gaussian) {
    const auto& half = kGaussianHalfRows.at(n);
    std::copy(half.begin(), half.end(), row.begin() + n / 2 - static_cast<std::ptrdiff_t>(half.size()));
    for (std::int32_t j = n / 2; j < n; ++j) row[j] = -row[n - 1 - j];
  } else {
    for (std::int32_t j = 0; j < n; ++j) row[j] = j < n / 2 ? j + 1 : -(n - j);
  }
  return row;
}

std::int32_t Saturate(std::int64_t value) {
  return static_cast<std::int32_t>(std::clamp<std::int64_t>(value, std::numeric_limits<std::int32_t>::min(),
                                                            std::numeric_limits<std::int32_t>::max()));
}

/// The plane as one flat array, moved toward higher indices (lower if negative); unusable samples move in.
Plane Shifted(const Plane& plane, std::int64_t elements) {
  const auto size = static_cast<std::int64_t>(plane.size());
  Plane shifted(plane.size(), kUnusable);
  for (std::int64_t i = 0; i < size; ++i) {
    const std::int64_t from = i - elements;
    if (from >= 0 && from < size) shifted[i] = plane[from];
  }
  return shifted;
}

/// The samples that the displacement (x, y) leaves usable: −1 is unusable, any other value is the moved
/// `source`'s.
Plane BuildMask(const Plane& source, int w, int h, std::int64_t x, std::int64_t y) {
  const std::int64_t wideX = x > 0 ? x + 3 : x - 3;
  const std::int64_t wideY = y > 0 ? y + 3 : y - 3;
  Plane mask;
  for (int r = 0; r < h; ++r) {
    for (int c = 0; c < w; ++c) {
      const bool inside = c + wideX >= 0 && c + wideX < w - 1 && r + wideY >= 0 && r + wideY < h - 1;
      mask.push_back(inside ? source[(r + wideY) * w + (c + wideX)] : kUnusable);
    }
  }
  const int element = wideX > 0 ? 1 : -1;
  const int row = wideY < 1 ? -w : w;
  return Shifted(Shifted(Shifted(Shifted(mask, element), element), row), row);
}

/// Bilinear value between four neighbours; the fractions have 9 bits.
std::int32_t Blend(std::int32_t p00, std::int32_t p01, std::int32_t p10, std::int32_t p11, std::int32_t fx,
                   std::int32_t fy) {
  const std::int32_t top = (p01 - p00) * fx + p00 * 512;
  const std::int32_t bottom = (p11 - p10) * fx + p10 * 512;
  return ((bottom - top) * fy + top * 512) >> 18;
}

struct Sample {
  bool inside;
  std::int32_t value;
};

/// Reads a plane as it looks when rotated about its centre.
class RotatedReader {
 public:
  RotatedReader(const SineCosineFunction& sineCosine, double radians, const Level& level) : m_level(level) {
    const int w = level.width, h = level.height;
    m_precision = w < 400 && h < 400 ? 21 : 31;
    const std::int64_t one = std::int64_t{1} << m_precision;
    double sine = 0.0, cosine = 0.0;
    sineCosine(radians, &sine, &cosine);
    const auto c = static_cast<std::int64_t>(cosine * static_cast<double>(one));
    const auto s = static_cast<std::int64_t>(sine * static_cast<double>(one));
    for (std::int64_t j = 0; j <= std::max(w, h); ++j) {
      m_cosines.push_back(2 * j * c);
      m_sines.push_back(2 * j * s);
    }
    m_originX = -(w - 1) * c + (h - 1) * s + (w - 1) * one;
    m_originY = -(w - 1) * s - (h - 1) * c + (h - 1) * one;
  }

  Sample At(int column, int row) const {
    const std::int64_t x = (m_cosines[column] - m_sines[row] + m_originX) >> (m_precision - 8);
    const std::int64_t y = (m_sines[column] + m_cosines[row] + m_originY) >> (m_precision - 8);
    const std::int64_t left = x >> 9, top = y >> 9;
    const int w = m_level.width, h = m_level.height;
    if (left < 0 || left >= w - 1 || top < 0 || top >= h - 1) return {false, 0};
    const std::int32_t* p = &m_level.current[top * w + left];
    return {true, Blend(p[0], p[1], p[w], p[w + 1], static_cast<std::int32_t>(x & 511),
                        static_cast<std::int32_t>(y & 511))};
  }

 private:
  const Level& m_level;
  int m_precision;
  std::vector<std::int64_t> m_cosines, m_sines;  // 2·j·cos and 2·j·sin in fixed point
  std::int64_t m_originX, m_originY;
};

struct RotatedPlanes {
  Plane rotated, derivative, validity;
};

RotatedPlanes Rotate(const SineCosineFunction& sineCosine, const Level& level, double theta) {
  const double radians = theta / kDegreesPerRadian;
  const RotatedReader here(sineCosine, radians, level);
  const RotatedReader before(sineCosine, radians - kHalfDegreeInRadians, level);
  const RotatedReader after(sineCosine, radians + kHalfDegreeInRadians, level);
  const Plane cleared(level.current.size(), 0);
  RotatedPlanes planes{cleared, cleared, cleared};
  for (int r = 0; r < level.height; ++r) {
    for (int c = 0; c < level.width; ++c) {
      const std::int64_t i = std::int64_t{r} * level.width + c;
      const Sample h = here.At(c, r), b = before.At(c, r), a = after.At(c, r);
      planes.rotated[i] = h.value;
      if (b.inside && a.inside) planes.derivative[i] = b.value - a.value;
      if (!h.inside || !b.inside || !a.inside) planes.validity[i] = kUnusable;
    }
  }
  return planes;
}

/// `derivative` is null when rotation is not estimated; the sums of theta then stay 0.
RotationSums Accumulate(const Level& level, const Plane& current, const Plane* derivative, const Plane& mask,
                        std::int64_t x, std::int64_t y) {
  const std::int64_t w = level.width, h = level.height;
  RotationSums sums = {};
  for (std::int64_t i = w; i < w * (h - 1); ++i) {
    if (mask[i] == kUnusable) continue;
    const std::int64_t q = i + y * w + x;
    const std::int64_t turn = derivative ? (*derivative)[q] : 0, right = current[q - 1] - current[q + 1],
                       up = current[q - w] - current[q + w], change = level.previous[i] - current[q];
    sums.rr += turn * turn, sums.rx += turn * right, sums.ry += turn * up, sums.rt += turn * change;
    sums.xx += right * right, sums.xy += right * up, sums.xt += right * change;
    sums.yy += up * up, sums.yt += up * change;
  }
  return sums;
}

/// One axis of the translation: where it stands and the last step that led there.
struct Axis {
  std::int64_t position;
  int sign = 0;
  double update = 0.0;
  std::int64_t step = 0;

  void Advance(double newUpdate, int newSign) {
    update = newUpdate;
    sign = newSign;
    step = newSign * static_cast<std::int64_t>(std::ceil(std::fabs(newUpdate)));
    position += step;
  }

  std::int32_t Finish(bool finestLevel) const {
    if (!finestLevel)
      return Saturate(2 * static_cast<std::int64_t>(static_cast<double>(position - step) + update));
    return Saturate(std::fabs(update - static_cast<double>(step)) > 0.5 ? position - sign : position);
  }
};

int Sign(double value, int signOfZero) { return value > 0.0 ? 1 : value < 0.0 ? -1 : signOfZero; }

bool AreValidMargins(const KernelParams& p) {
  return p.cropMarginX >= 0 && p.cropMarginX < p.width / 2 && p.cropMarginY >= 0 &&
         p.cropMarginY < p.height / 2;
}

}  // namespace

ReferenceModel::ReferenceModel(SineCosineFunction sineCosine) : m_sineCosine(std::move(sineCosine)) {}

bool ReferenceModel::Initialize(const KernelParams& params) {
  *this = ReferenceModel(m_sineCosine);
  if (!AreValidMargins(params) || params.clippingOption > 2 ||
      !kGaussianHalfRows.contains(params.windowLength))
    return false;

  m_params = params;
  m_stride = (std::int64_t{3} * params.width + 3) / 4 * 4;
  m_frameSize = m_stride * params.height;
  m_latencyCount = static_cast<std::size_t>(params.windowLength / 2 + 1);
  m_weights = WeightRow(params.windowLength, params.gaussianWeights != 0);
  const std::int32_t mx = params.cropMarginX, my = params.cropMarginY;
  m_outputRect = params.clippingOption == 2 ? Rect{0, 0, params.width, params.height}
                                            : Rect{mx, my, params.width - mx, params.height - my};
  m_zoomStep = ComputeZoomStep();
  int w = params.roi.right - params.roi.left, h = params.roi.bottom - params.roi.top;
  for (int i = 0; i < 5 && (i == 0 || (w >= 80 && h >= 80)); ++i) {
    m_levels.push_back({w, h, {}, {}, {}});
    w = (w - 3) / 2 - 4;
    h = (h - 3) / 2 - 4;
  }
  m_motion.resize(static_cast<std::size_t>(params.windowLength), MotionRecord{});
  return true;
}

bool ReferenceModel::ProcessFrame(std::uint8_t* pixels, bool repeatPrevious, bool* noOutput) {
  if (m_history.size() == m_latencyCount) m_history.pop_front();
  const bool repeats = repeatPrevious && !m_history.empty();
  m_history.push_back(repeats ? Frame(m_history.back()) : Frame(pixels, pixels + m_frameSize));
  BuildPyramid();
  if (m_history.size() >= 2) EstimateMotion();
  *noOutput = m_history.size() < m_latencyCount;
  if (*noOutput) return true;
  m_correction = ComputeCorrection();
  CompensateFrame(m_correction, pixels);
  return true;
}

void ReferenceModel::BuildPyramid() {
  for (Level& level : m_levels) {
    level.previous = std::move(level.current);
    level.current.clear();
  }
  const Rect& roi = m_params.roi;
  for (std::int64_t row = m_params.height - roi.bottom; row < m_params.height - roi.top; ++row) {
    for (std::int64_t column = roi.left; column < roi.right; ++column) {
      const std::uint8_t* pixel = &m_history.back()[row * m_stride + 3 * column];
      m_levels[0].current.push_back(pixel[0] + pixel[1] + 2 * pixel[2]);
    }
  }
  // By distance from the centre on each axis.
  constexpr std::int32_t weights[3][3] = {{164, 102, 20}, {102, 64, 13}, {20, 13, 3}};
  for (std::size_t k = 1; k < m_levels.size(); ++k) {
    const Level& source = m_levels[k - 1];
    for (int j = 0; j < m_levels[k].height; ++j) {
      for (int i = 0; i < m_levels[k].width; ++i) {
        std::int32_t sum = 0;
        for (int dy = -2; dy <= 2; ++dy) {
          for (int dx = -2; dx <= 2; ++dx)
            sum += weights[std::abs(dy)][std::abs(dx)] *
                   source.current[(6 + 2 * j + dy) * source.width + 6 + 2 * i + dx];
        }
        m_levels[k].current.push_back(sum >> 10);
      }
    }
  }
}

void ReferenceModel::EstimateMotion() {
  const std::size_t n = m_levels.size();
  std::size_t finest = 0;
  if (m_params.estimationQuality == 2) finest = n > 1 ? 1 : n - 1;
  if (m_params.estimationQuality == 3) finest = n >= 3 ? 2 : n - 1;
  for (std::size_t index = n; index-- > finest;) {
    if (m_params.estimationCoefficients == 0) EstimateTranslation(index);
    if (m_params.estimationCoefficients == 1) EstimateRotation(index);
  }
  MotionRecord record = m_levels[finest].estimate;
  if (finest >= 1) {
    record.dx = Saturate(std::int64_t{record.dx} << (finest - 1));
    record.dy = Saturate(std::int64_t{record.dy} << (finest - 1));
  }
  m_motion.pop_front();
  m_motion.push_back(record);
}

MotionRecord ReferenceModel::StartOf(std::size_t index) const {
  return index + 1 == m_levels.size() ? MotionRecord{} : m_levels[index + 1].estimate;
}

void ReferenceModel::EstimateTranslation(std::size_t index) {
  Level& level = m_levels[index];
  const MotionRecord start = StartOf(index);
  Axis x{start.dx}, y{start.dy};
  int oscillations = 0;
  for (int iteration = 0; iteration < kMaxIterations && oscillations < kMaxOscillations; ++iteration) {
    const Plane mask =
        BuildMask(Plane(level.current.size(), 0), level.width, level.height, x.position, y.position);
    const RotationSums sums = Accumulate(level, level.current, nullptr, mask, x.position, y.position);
    const MotionUpdate u =
        SolveTranslation({.xx = sums.xx, .xy = sums.xy, .yy = sums.yy, .xt = sums.xt, .yt = sums.yt});
    const int sx = Sign(u.x, 0), sy = Sign(u.y, 0);
    if (x.sign == -sx && y.sign == -sy) ++oscillations;
    x.Advance(u.x, sx);
    y.Advance(u.y, sy);
  }
  level.estimate.dx = x.Finish(index == 0);
  level.estimate.dy = y.Finish(index == 0);
}

void ReferenceModel::EstimateRotation(std::size_t index) {
  Level& level = m_levels[index];
  const MotionRecord start = StartOf(index);
  Axis x{start.dx}, y{start.dy};
  double theta = start.theta, previousTheta = start.theta;
  int oscillations = 0, thetaSign = 0;
  for (int iteration = 0; iteration < kMaxIterations && oscillations < kMaxOscillations; ++iteration) {
    const RotatedPlanes planes = Rotate(m_sineCosine, level, theta);
    const Plane mask = BuildMask(planes.validity, level.width, level.height, x.position, y.position);
    const MotionUpdate u =
        SolveRotation(Accumulate(level, planes.rotated, &planes.derivative, mask, x.position, y.position));
    const int st = Sign(u.theta, -1), sx = Sign(u.x, -1), sy = Sign(u.y, -1);
    if (thetaSign == -st && x.sign == -sx && y.sign == -sy) ++oscillations;
    x.Advance(u.x, sx);
    y.Advance(u.y, sy);
    thetaSign = st;
    previousTheta = theta;
    theta += u.theta;
  }
  level.estimate = {x.Finish(index == 0), y.Finish(index == 0),
                    index >= 2 ? 0.0 : (previousTheta + theta) / 2.0};
}

MotionRecord ReferenceModel::ComputeCorrection() const {
  const std::size_t n = m_motion.size();
  std::uint32_t sumX = 0, sumY = 0;  // wrap at 32 bits
  double sumTheta = 0.0;
  for (std::size_t i = 0; i < n; ++i) {
    const std::int32_t weight = m_weights[n - 1 - i];
    sumX += static_cast<std::uint32_t>(weight) * static_cast<std::uint32_t>(m_motion[i].dx);
    sumY += static_cast<std::uint32_t>(weight) * static_cast<std::uint32_t>(m_motion[i].dy);
    sumTheta += static_cast<double>(weight) * m_motion[i].theta;
  }
  const double divisor = m_params.gaussianWeights != 0 ? 128.0 : static_cast<double>(n);
  const auto limited = [&](std::uint32_t sum, std::int32_t size) {
    const auto value =
        static_cast<std::int32_t>(static_cast<double>(static_cast<std::int32_t>(sum)) / divisor);
    return std::abs(value) >= static_cast<std::int32_t>(static_cast<float>(size) * 0.6F) ? 0 : value;
  };
  return {limited(sumX, m_params.width), limited(sumY, m_params.height), -(sumTheta / divisor)};
}

std::int32_t ReferenceModel::ComputeZoomStep() const {
  constexpr double candidates[] = {2.0,  1.8824, 1.7778, 1.6842, 1.6,    1.5238, 1.4545, 1.3913, 1.3333,
                                   1.28, 1.2308, 1.1852, 1.1429, 1.1034, 1.0667, 1.0323, 1.0};
  if (m_params.clippingOption != 2) return 32;
  const double w = m_params.width, h = m_params.height;
  const double need = std::max(h / (h - 2.0 * m_params.cropMarginY), w / (w - 2.0 * m_params.cropMarginX));
  std::int32_t best = 0;
  double bestDistance = 2.0;
  for (std::int32_t k = 0; k <= 16; ++k) {
    const double distance = std::fabs(need - candidates[k]);
    if (distance < bestDistance) {
      best = k;
      bestDistance = distance;
    }
  }
  return best + 16;
}

void ReferenceModel::CompensateFrame(const MotionRecord& correction, std::uint8_t* pixels) const {
  if (correction.theta == 0.0 && m_params.clippingOption == 0)
    MoveFrame(correction, pixels);
  else
    WarpFrame(correction, pixels);
  if (m_params.clippingOption == 0) DrawOutline(pixels);
  if (m_params.clippingOption == 1) CropFrame(pixels);
}

void ReferenceModel::MoveFrame(const MotionRecord& correction, std::uint8_t* pixels) const {
  const Frame& source = m_history.front();
  const std::int64_t offset = correction.dy * m_stride + std::int64_t{3} * correction.dx;
  for (std::int64_t to = 0; to < m_frameSize; ++to) {
    const std::int64_t from = to - offset;
    if (from >= 0 && from < m_frameSize) pixels[to] = source[from];
  }
  const int w = m_params.width, h = m_params.height, dx = correction.dx, dy = correction.dy;
  FillRows(pixels, dy >= 0 ? 0 : h + dy, dy >= 0 ? dy : h);
  FillColumns(pixels, dx >= 0 ? 0 : w + dx, dx >= 0 ? dx : w);
}

void ReferenceModel::WarpFrame(const MotionRecord& correction, std::uint8_t* pixels) const {
  const std::int64_t w = m_params.width, h = m_params.height, zoom = m_zoomStep;
  const int precision = w < 400 && h < 400 ? 15 : 31;
  double sine = 0.0, cosine = 0.0;
  m_sineCosine(correction.theta / kDegreesPerRadian, &sine, &cosine);
  const std::int64_t c = static_cast<std::int64_t>(std::ldexp(cosine, precision)) * zoom;
  const std::int64_t s = static_cast<std::int64_t>(std::ldexp(sine, precision)) * zoom;
  std::vector<std::int64_t> cosines, sines;
  for (std::int64_t k = 0; k <= std::max(w, h); ++k) {
    cosines.push_back(2 * k * c);
    sines.push_back(2 * k * s);
  }
  const auto shift = [&](std::int32_t d) {
    return static_cast<std::int64_t>(d * (32.0 / m_zoomStep) * m_zoomStep) << (precision + 1);
  };
  const auto size = [&](std::int64_t n) { return (n * zoom << precision) + (n * (32 - zoom) << precision); };
  const std::int64_t originX = (cosines[w - 1] >> 1) - size(w) - (sines[h - 1] >> 1) + shift(correction.dx);
  const std::int64_t originY = (cosines[h - 1] >> 1) - size(h) + (sines[w - 1] >> 1) + shift(correction.dy);
  for (std::int64_t j = m_outputRect.top; j < m_outputRect.bottom; ++j) {
    for (std::int64_t i = m_outputRect.left; i < m_outputRect.right; ++i) {
      const std::int64_t u = cosines[i] - sines[j] - originX;
      const std::int64_t v = cosines[j] + sines[i] - originY;
      SamplePixel(u >> (precision - 3), v >> (precision - 3), pixels + j * m_stride + 3 * i);
    }
  }
}

/// Writes the pixel that the delayed frame shows at (x, y), in 1/512 pixel.
void ReferenceModel::SamplePixel(std::int64_t x, std::int64_t y, std::uint8_t* to) const {
  const std::int64_t sx = x >> 9, sy = y >> 9;
  const auto fx = static_cast<std::int32_t>(x & 511), fy = static_cast<std::int32_t>(y & 511);
  if (sx < 0 || sx >= m_params.width - 1 || sy < 0 || sy >= m_params.height - 1) {
    std::copy(m_params.backgroundColor.begin(), m_params.backgroundColor.end(), to);
    return;
  }
  const std::uint8_t* p = &m_history.front()[sy * m_stride + 3 * sx];
  if (m_params.interpolation == 0) {
    std::copy_n(p + (fy >= 255 ? m_stride : 0) + (fx >= 255 ? 3 : 0), 3, to);
    return;
  }
  for (int channel = 0; channel < 3; ++channel, ++p)
    to[channel] = static_cast<std::uint8_t>(Blend(p[0], p[3], p[m_stride], p[m_stride + 3], fx, fy));
}

void ReferenceModel::DrawOutline(std::uint8_t* pixels) const {
  const int w = m_params.width, h = m_params.height, mx = m_params.cropMarginX, my = m_params.cropMarginY;
  FillRows(pixels, 0, my);
  FillRows(pixels, h - my - 1, h);
  FillColumns(pixels, 0, mx);
  FillColumns(pixels, w - mx, w);
}

void ReferenceModel::CropFrame(std::uint8_t* pixels) const {
  const Frame warped(pixels, pixels + m_frameSize);
  const std::int64_t mx = m_params.cropMarginX, my = m_params.cropMarginY;
  const std::int64_t cw = m_params.width - 2 * mx, ch = m_params.height - 2 * my;
  const std::int64_t pitch = 3 * cw + (4 - (9 * cw) % 4) % 4;
  for (std::int64_t r = 0; r < ch; ++r) {
    for (std::int64_t i = 0; i < 3 * cw && r * pitch + i < m_frameSize; ++i)
      pixels[r * pitch + i] = warped[(my + r) * m_stride + 3 * mx + i];
  }
}

/// Whole rows of background, zeros in their padding.
void ReferenceModel::FillRows(std::uint8_t* pixels, int from, int to) const {
  for (std::int64_t row = from; row < to; ++row) {
    for (std::int64_t i = 0; i < m_stride; ++i) {
      const bool padding = i >= std::int64_t{3} * m_params.width;
      pixels[row * m_stride + i] = padding ? std::uint8_t{0} : m_params.backgroundColor[i % 3];
    }
  }
}

/// Pixels only: the padding of the rows stays as it is.
void ReferenceModel::FillColumns(std::uint8_t* pixels, int from, int to) const {
  for (std::int64_t row = 0; row < m_params.height; ++row) {
    for (std::int64_t i = std::int64_t{3} * from; i < std::int64_t{3} * to; ++i)
      pixels[row * m_stride + i] = m_params.backgroundColor[i % 3];
  }
}

}  // namespace reference
