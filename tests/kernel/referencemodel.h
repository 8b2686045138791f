#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <limits>
#include <vector>

#include "kernel/framecompensation.h"
#include "kernel/leastsquares.h"
#include "kernel/pathsmoothing.h"
#include "kernel/sampling.h"
#include "kernel/sinecosine.h"

/// The stabilization kernel once more, as a definition. Whole planes are made and read sample by sample,
/// every loop runs to its own stop rule, and nothing is kept for speed. The model is slow on purpose, and
/// judges the fast code byte by byte. It shares with the kernel what literal facts pin: tables, solver, sine
/// and cosine.
namespace reference {

using Frame = std::vector<std::uint8_t>;    ///< bottom-up rows of blue, green, red, padded to 4 bytes
using Samples = std::vector<std::int32_t>;  ///< row by row, without padding

/// A place in a picture, in 1/512 sample.
struct Place {
  std::int64_t x, y;

  std::int64_t Column() const { return x >> 9; }
  std::int64_t Row() const { return y >> 9; }
  /// Whether the sample here, its right and its upper neighbour exist.
  bool IsInside(int width, int height) const {
    return Column() >= 0 && Column() < width - 1 && Row() >= 0 && Row() < height - 1;
  }
};

/// The mean of four neighbours, which stand `step` apart in a row and `pitch` apart between rows.
template <class Value>
std::int32_t Mean(const Value* p, std::int64_t step, std::int64_t pitch, const Place& at) {
  const auto right = static_cast<std::int32_t>(at.x & 511), up = static_cast<std::int32_t>(at.y & 511);
  return ((512 - right) * (512 - up) * p[0] + right * (512 - up) * p[step] + (512 - right) * up * p[pitch] +
          right * up * p[pitch + step]) >>
         18;
}

/// Where a picture reads that is turned about its centre and magnified by 32 / zoom.
class Turn {
 public:
  /// The centre reads at (centreX, centreY), in 1/64 sample.
  Turn(double radians, int width, int height, int bitsOfSmallPictures, std::int64_t zoom,
       std::int64_t centreX, std::int64_t centreY)
      : m_width(width), m_height(height), m_centreX(centreX), m_centreY(centreY) {
    m_bits = width < 400 && height < 400 ? bitsOfSmallPictures : 31;
    const SineCosine angle = ComputeSineCosine(radians);
    m_cosine = static_cast<std::int64_t>(std::ldexp(angle.cosine, m_bits)) * zoom;
    m_sine = static_cast<std::int64_t>(std::ldexp(angle.sine, m_bits)) * zoom;
  }

  Place At(std::int64_t column, std::int64_t row) const {
    const std::int64_t right = 2 * column - (m_width - 1), up = 2 * row - (m_height - 1);
    return {(right * m_cosine - up * m_sine + (m_centreX << m_bits)) >> (m_bits - 3),
            (right * m_sine + up * m_cosine + (m_centreY << m_bits)) >> (m_bits - 3)};
  }

 private:
  std::int64_t m_width, m_height, m_centreX, m_centreY, m_cosine, m_sine;
  int m_bits;
};

/// A plane at an angle: its samples, their difference between half a degree less and half a degree more, and
/// whether all three exist.
struct TurnedPlane {
  Samples here, derivative;
  std::vector<bool> isUsable;
};

/// One pyramid level. The estimate of a level other than 0 is doubled, ready for the next finer one.
struct Level {
  int width, height;
  Samples previous, current;
  MotionRecord estimate = {};

  TurnedPlane TurnedBy(double degrees) const {
    constexpr double kHalfDegree = 0.01745329251994 * 0.5;
    const auto turn = [&](double more) {
      return Turn(degrees / 57.29577951 + more, width, height, 21, 32, 32 * (width - 1), 32 * (height - 1));
    };
    const Turn turns[] = {turn(0), turn(-kHalfDegree), turn(kHalfDegree)};
    TurnedPlane plane;
    for (int i = 0; i < width * height; ++i) {
      std::int32_t value[3] = {};
      bool isInside[3];
      for (int k = 0; k < 3; ++k) {
        const Place at = turns[k].At(i % width, i / width);
        isInside[k] = at.IsInside(width, height);
        if (isInside[k]) value[k] = Mean(&current[at.Row() * width + at.Column()], 1, width, at);
      }
      plane.here.push_back(value[0]);
      plane.derivative.push_back(isInside[1] && isInside[2] ? value[1] - value[2] : 0);
      plane.isUsable.push_back(isInside[0] && isInside[1] && isInside[2]);
    }
    return plane;
  }

  /// A sample counts if it is at least two samples from the edges that the displacement (x, y) leads away
  /// from, and if the sample one beyond its source, in the direction of the displacement, can be used.
  RotationSums Compare(const TurnedPlane& plane, std::int64_t x, std::int64_t y) const {
    const std::int64_t w = width, h = height, outX = x > 0 ? 1 : -1, outY = y > 0 ? 1 : -1;
    const auto isIn = [](std::int64_t place, std::int64_t end) { return place >= 0 && place < end; };
    RotationSums sums;
    for (std::int64_t i = 0; i < w * h; ++i) {
      const std::int64_t c = i % w, r = i / w, q = i + y * w + x;
      if (!isIn(c - 2 * outX, w) || !isIn(c + x + outX, w - 1) || !isIn(r - 2 * outY, h) ||
          !isIn(r + y + outY, h - 1) || !plane.isUsable[q + outY * w + outX])
        continue;
      const Samples& now = plane.here;
      const std::int64_t turn = plane.derivative[q], right = now[q - 1] - now[q + 1],
                         up = now[q - w] - now[q + w], change = previous[i] - now[q];
      sums.rr += turn * turn, sums.rx += turn * right, sums.ry += turn * up, sums.rt += turn * change;
      sums.xx += right * right, sums.xy += right * up, sums.xt += right * change;
      sums.yy += up * up, sums.yt += up * change;
    }
    return sums;
  }
};

inline std::int32_t Saturate(std::int64_t value) {
  using Limits = std::numeric_limits<std::int32_t>;
  return static_cast<std::int32_t>(std::clamp<std::int64_t>(value, Limits::min(), Limits::max()));
}

/// One axis of the displacement: where it stands, and the last step that led there.
struct Axis {
  std::int64_t position;
  double update = 0;
  std::int64_t step = 0;
  int sign = 0;

  /// Whether the step turns back.
  bool Advance(double newUpdate, int signOfZero) {
    const int newSign = newUpdate > 0 ? 1 : newUpdate < 0 ? -1 : signOfZero;
    const bool turnsBack = sign == -newSign;
    update = newUpdate;
    sign = newSign;
    step = sign * static_cast<std::int64_t>(std::ceil(std::fabs(update)));
    position += step;
    return turnsBack;
  }

  std::int32_t Result(bool isFinest) const {
    const bool overshot = std::fabs(update - static_cast<double>(step)) > 0.5;
    if (isFinest) return Saturate(overshot ? position - sign : position);
    return Saturate(2 * static_cast<std::int64_t>(static_cast<double>(position - step) + update));
  }
};

class Model {
 public:
  /// The kernel must accept the settings. Their region must lie in the frame.
  explicit Model(const KernelParams& params)
      : m_params(params),
        m_stride((std::int64_t{3} * params.width + 3) / 4 * 4),
        m_motion(static_cast<std::size_t>(params.windowLength), MotionRecord{}) {
    int w = params.roi.right - params.roi.left, h = params.roi.bottom - params.roi.top;
    for (int i = 0; i < 5 && (i == 0 || (w >= 80 && h >= 80)); ++i) {
      m_levels.push_back({w, h, {}, {}});
      w = (w - 3) / 2 - 4;
      h = (h - 3) / 2 - 4;
    }
  }

  /// Takes a frame. Replaces it by the delivered one and returns true, or returns false while the delay line
  /// fills.
  bool ProcessFrame(Frame& pixels, bool repeatPrevious) {
    const auto delay = static_cast<std::size_t>(m_params.windowLength / 2 + 1);
    if (m_history.size() == delay) m_history.pop_front();
    m_history.push_back(repeatPrevious && !m_history.empty() ? m_history.back() : pixels);
    BuildPyramid();
    if (m_history.size() >= 2) EstimateMotion();
    if (m_history.size() < delay) return false;
    m_correction = ComputeCorrection();
    Compensate(pixels);
    return true;
  }

  MotionRecord LatestMotion() const { return m_motion.back(); }
  MotionRecord LatestCorrection() const { return m_correction; }  ///< of the frame delivered last, or zeros

 private:
  void BuildPyramid() {
    for (Level& level : m_levels) {
      level.previous = std::move(level.current);
      level.current.clear();
    }
    const Rect& roi = m_params.roi;
    for (std::int64_t row = m_params.height - roi.bottom; row < m_params.height - roi.top; ++row) {
      for (std::int64_t column = roi.left; column < roi.right; ++column) {
        const std::uint8_t* const pixel = &m_history.back()[row * m_stride + 3 * column];
        m_levels[0].current.push_back(pixel[0] + pixel[1] + 2 * pixel[2]);
      }
    }
    // By distance from the centre on each axis.
    constexpr std::int32_t kWeights[3][3] = {{164, 102, 20}, {102, 64, 13}, {20, 13, 3}};
    for (std::size_t k = 1; k < m_levels.size(); ++k) {
      const Level& source = m_levels[k - 1];
      for (int i = 0; i < m_levels[k].width * m_levels[k].height; ++i) {
        const int x = 6 + 2 * (i % m_levels[k].width), y = 6 + 2 * (i / m_levels[k].width);
        std::int32_t sum = 0;
        for (int dy = -2; dy <= 2; ++dy)
          for (int dx = -2; dx <= 2; ++dx)
            sum += kWeights[std::abs(dy)][std::abs(dx)] * source.current[(y + dy) * source.width + x + dx];
        m_levels[k].current.push_back(sum >> 10);
      }
    }
  }

  void EstimateMotion() {
    std::size_t finest = m_params.estimationQuality == 2 ? 1 : m_params.estimationQuality == 3 ? 2 : 0;
    finest = std::min(finest, m_levels.size() - 1);
    MotionRecord start = {};
    for (std::size_t index = m_levels.size(); index-- > finest && m_params.estimationCoefficients < 2;)
      start = m_levels[index].estimate = Estimate(index, start);
    MotionRecord motion = m_levels[finest].estimate;
    if (finest >= 1) {
      motion.dx = Saturate(std::int64_t{motion.dx} << (finest - 1));
      motion.dy = Saturate(std::int64_t{motion.dy} << (finest - 1));
    }
    m_motion.pop_front();
    m_motion.push_back(motion);
  }

  MotionRecord Estimate(std::size_t index, const MotionRecord& start) const {
    const Level& level = m_levels[index];
    const bool turns = m_params.estimationCoefficients == 1;
    const int signOfZero = turns ? -1 : 0;
    Axis x = {start.dx}, y = {start.dy}, turn = {0};
    double theta = start.theta, previousTheta = theta;
    for (int iteration = 0, oscillations = 0; iteration < 30 && oscillations < 2; ++iteration) {
      const TurnedPlane plane = turns ? level.TurnedBy(theta)
                                      : TurnedPlane{level.current, Samples(level.current.size()),
                                                    std::vector<bool>(level.current.size(), true)};
      const RotationSums sums = level.Compare(plane, x.position, y.position);
      const MotionUpdate update =
          turns
              ? SolveRotation(sums)
              : SolveTranslation({.xx = sums.xx, .xy = sums.xy, .yy = sums.yy, .xt = sums.xt, .yt = sums.yt});
      const bool xTurns = x.Advance(update.x, signOfZero), yTurns = y.Advance(update.y, signOfZero);
      oscillations += turn.Advance(update.theta, signOfZero) && xTurns && yTurns;
      previousTheta = theta;
      theta += update.theta;
    }
    return {x.Result(index == 0), y.Result(index == 0), index >= 2 ? 0.0 : (previousTheta + theta) / 2};
  }

  MotionRecord ComputeCorrection() const {
    const PathWeights weights = FindPathWeights(m_params.windowLength, m_params.gaussianWeights != 0);
    std::uint32_t x = 0, y = 0;  // wrap at 32 bits
    double theta = 0;
    for (std::size_t i = 0; i < m_motion.size(); ++i) {
      const std::int32_t weight = weights.entries[m_motion.size() - 1 - i];
      x += static_cast<std::uint32_t>(weight) * static_cast<std::uint32_t>(m_motion[i].dx);
      y += static_cast<std::uint32_t>(weight) * static_cast<std::uint32_t>(m_motion[i].dy);
      theta += weight * m_motion[i].theta;
    }
    const auto limited = [&](std::uint32_t sum, std::int32_t side) {
      const std::int32_t shift = static_cast<std::int32_t>(sum) / weights.divisor;
      return std::abs(shift) >= static_cast<std::int32_t>(static_cast<float>(side) * 0.6F) ? 0 : shift;
    };
    return {limited(x, m_params.width), limited(y, m_params.height), -(theta / weights.divisor)};
  }

  void Compensate(Frame& out) const {
    const int w = m_params.width, h = m_params.height, mx = m_params.cropMarginX, my = m_params.cropMarginY;
    const int dx = m_correction.dx, dy = m_correction.dy;
    const auto option = static_cast<ClippingOption>(m_params.clippingOption);
    if (m_correction.theta != 0 || option != ClippingOption::Outline) {
      Warp(out);
    } else {
      // The frame moves as one array.
      const Frame& source = m_history.front();
      const std::int64_t offset = dy * m_stride + std::int64_t{3} * dx, size = m_stride * h;
      for (std::int64_t to = std::max<std::int64_t>(offset, 0); to < size + std::min<std::int64_t>(offset, 0);
           ++to)
        out[to] = source[to - offset];
      Fill({0, dy < 0 ? h + dy : 0, w, dy < 0 ? h : dy}, out);
      Fill({dx < 0 ? w + dx : 0, 0, dx < 0 ? w : dx, h}, out);
    }
    if (option == ClippingOption::Outline)
      for (const Rect& side : {Rect{0, 0, w, my}, {0, h - my - 1, w, h}, {0, 0, mx, h}, {w - mx, 0, w, h}})
        Fill(side, out);
    if (option == ClippingOption::Crop) Crop(out);
  }

  void Warp(Frame& out) const {
    const int w = m_params.width, h = m_params.height;
    const auto option = static_cast<ClippingOption>(m_params.clippingOption);
    const bool isWhole = option == ClippingOption::CropAndStretch;
    const int mx = isWhole ? 0 : m_params.cropMarginX, my = isWhole ? 0 : m_params.cropMarginY;
    const std::int32_t zoom = ComputeZoom(option, w, h, m_params.cropMarginX, m_params.cropMarginY);
    const auto centre = [&](std::int64_t side, std::int32_t shift) {
      return 32 * side - 2 * static_cast<std::int64_t>(shift * (32.0 / zoom) * zoom);
    };
    const Turn turn(m_correction.theta / 57.29577951, w, h, 15, zoom, centre(w, m_correction.dx),
                    centre(h, m_correction.dy));
    for (std::int64_t row = my; row < h - my; ++row)
      for (std::int64_t column = mx; column < w - mx; ++column)
        WritePixel(turn.At(column, row), &out[row * m_stride + 3 * column]);
  }

  /// Writes the pixel that the delayed frame shows at a place.
  void WritePixel(const Place& at, std::uint8_t* to) const {
    if (!at.IsInside(m_params.width, m_params.height)) {
      std::ranges::copy(m_params.backgroundColor, to);
      return;
    }
    const std::uint8_t* const from = &m_history.front()[at.Row() * m_stride + 3 * at.Column()];
    for (int color = 0; color < 3; ++color)
      to[color] = m_params.interpolation == 0
                      ? from[((at.y & 511) >= 255 ? m_stride : 0) + ((at.x & 511) >= 255 ? 3 : 0) + color]
                      : static_cast<std::uint8_t>(Mean(from + color, 3, m_stride, at));
  }

  void Crop(Frame& out) const {
    const Frame warped = out;
    const std::int64_t mx = m_params.cropMarginX, my = m_params.cropMarginY;
    const std::int64_t bytes = 3 * (m_params.width - 2 * mx), pitch = bytes + (4 - 3 * bytes % 4) % 4;
    for (std::int64_t row = 0; row < m_params.height - 2 * my; ++row)
      for (std::int64_t i = 0; i < bytes && row * pitch + i < m_stride * m_params.height; ++i)
        out[row * pitch + i] = warped[(my + row) * m_stride + 3 * mx + i];
  }

  /// Fills the area, in columns and memory rows, with background. Whole rows get zeros in their padding.
  void Fill(const Rect& area, Frame& out) const {
    for (std::int64_t row = area.top; row < area.bottom; ++row) {
      for (std::int64_t i = std::int64_t{3} * area.left; i < std::int64_t{3} * area.right; ++i)
        out[row * m_stride + i] = m_params.backgroundColor[i % 3];
      if (area.left == 0 && area.right == m_params.width)
        std::fill(&out[row * m_stride] + 3 * m_params.width, &out[row * m_stride] + m_stride, 0);
    }
  }

  KernelParams m_params;
  std::int64_t m_stride;
  std::vector<Level> m_levels;        ///< finest first
  std::deque<Frame> m_history;        ///< oldest first
  std::deque<MotionRecord> m_motion;  ///< oldest first, always one window long
  MotionRecord m_correction = {};
};

}  // namespace reference
