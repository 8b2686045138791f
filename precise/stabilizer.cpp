#include "precise/stabilizer.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

#include "precise/margins.h"
#include "precise/motion.h"
#include "precise/path.h"
#include "precise/pyramid.h"
#include "precise/shots.h"
#include "precise/warp.h"

namespace precise {
namespace {

constexpr double kFarthestSite = 4;  // of chroma, in luma samples
// A picture is out of sight long before it is shifted so far. The limit keeps positions within their range.
constexpr double kFarthestShift = 1 << 24;

bool IsUsable(const PictureFormat& format) {
  const auto isSide = [](std::int32_t side) { return side >= 1 && side <= kLargestSide; };
  const auto isShift = [](int shift) { return shift >= 0 && shift <= 2; };
  return isSide(format.width) && isSide(format.height) && format.planes >= 1 && format.planes <= kMaxPlanes &&
         format.bitsPerSample >= 8 && format.bitsPerSample <= 16 && isShift(format.chromaShiftX) &&
         isShift(format.chromaShiftY) && std::abs(format.chromaSiteX) <= kFarthestSite &&
         std::abs(format.chromaSiteY) <= kFarthestSite && format.pixelAspect >= 1 / kLargestPixelAspect &&
         format.pixelAspect <= kLargestPixelAspect;
}

bool AreWeights(const std::vector<double>& weights) {
  return weights.front() > 0 &&
         std::ranges::all_of(weights, [](double weight) { return weight >= 0 && weight <= 1e9; });
}

/// The margin, in luma samples, rounded down to whole chroma samples.
std::int32_t CutOff(double margin, int chromaShift) {
  return static_cast<std::int32_t>(margin) >> chromaShift << chromaShift;
}

Shown MakeShown(const PictureFormat& format, const Settings& settings) {
  Shown shown = {.input = format,
                 .output = OutputFormat(format, settings),
                 .interpolation = settings.interpolation,
                 .background = settings.background};
  switch (settings.clipping) {
    case Clipping::Stretch:
      shown.zoom = std::min(format.width / (format.width - 2 * settings.marginX),
                            format.height / (format.height - 2 * settings.marginY));
      break;
    case Clipping::Crop:
      shown.left = (format.width - shown.output.width) / 2;
      shown.top = (format.height - shown.output.height) / 2;
      break;
    case Clipping::Outline:
      shown.borderX = static_cast<std::int32_t>(settings.marginX);
      shown.borderY = static_cast<std::int32_t>(settings.marginY);
      break;
  }
  if (format.HasAlpha()) shown.background[static_cast<std::size_t>(format.planes - 1)] = 0;
  return shown;
}

HalfSizes HalfSizesOf(const Shown& shown) {
  const double aspect = shown.input.pixelAspect;
  return {{shown.input.width * aspect / 2, shown.input.height / 2.0},
          1 / shown.zoom * Complex{shown.output.width * aspect / 2, shown.output.height / 2.0}};
}

/// Margins on one axis alone leave no room for roll, and count as none.
bool HaveMargins(const HalfSizes& sizes) {
  return sizes.shown.re < sizes.picture.re && sizes.shown.im < sizes.picture.im;
}

/// A frame's possible corrections, and how far up its ladder they fit.
struct PathPoint {
  CLadder ladder;
  double reach = 0;
};

/// A ring buffer of the newest frames' entries, indexed by frame number.
template <class T>
class FrameRing {
 public:
  explicit FrameRing(std::int64_t capacity) : m_entries(static_cast<std::size_t>(capacity)) {}
  T& operator[](std::int64_t frame) { return m_entries[static_cast<std::size_t>(frame) % m_entries.size()]; }

 private:
  std::vector<T> m_entries;
};

}  // namespace

bool AreUsable(const PictureFormat& format, const Settings& settings) {
  if (!IsUsable(format)) return false;
  const auto leavesSample = [](double margin, std::int32_t side) {
    return margin >= 0 && 2 * margin <= side - 1;
  };
  const auto& region = settings.estimateFrom;
  return settings.window >= 2 && settings.window <= 256 && settings.window % 2 == 0 &&
         leavesSample(settings.marginX, format.width) && leavesSample(settings.marginY, format.height) &&
         (!region || (std::max(region->left, 0) < std::min(region->right, format.width) &&
                      std::max(region->top, 0) < std::min(region->bottom, format.height))) &&
         (settings.pathWeights.empty() ||
          (settings.pathWeights.size() == static_cast<std::size_t>(settings.window / 2 + 1) &&
           AreWeights(settings.pathWeights)));
}

PictureFormat OutputFormat(const PictureFormat& format, const Settings& settings) {
  PictureFormat output = format;
  if (settings.clipping == Clipping::Crop) {
    output.width -= 2 * CutOff(settings.marginX, format.chromaShiftX);
    output.height -= 2 * CutOff(settings.marginY, format.chromaShiftY);
  }
  return output;
}

std::int32_t DelayFrames(const PictureFormat& format, const Settings& settings) {
  return HaveMargins(HalfSizesOf(MakeShown(format, settings))) ? settings.window : settings.window / 2;
}

/// The state of one stream. Frames are numbered from 0.
struct CStabilizer::Stream {
  Stream(const PictureFormat& format, const Settings& wanted, SimdLevel cap, RowRunner rowRunner)
      : loops(SelectLoops(cap)),
        runner(std::move(rowRunner)),
        settings(wanted),
        shown(MakeShown(format, settings)),
        sizes(HalfSizesOf(shown)),
        hasMargins(HaveMargins(sizes)),
        half(settings.window / 2),
        bend(half / 2),
        delay(precise::DelayFrames(format, settings)),
        estimator(format, settings.estimateFrom, loops),
        reference(format),
        lent(delay + 1),
        track(2 * settings.window + 4, settings.findCuts),
        sinceReference(track.Capacity()),
        path(track.Capacity()),
        poses(static_cast<std::size_t>(settings.window) + 1),
        reaches(static_cast<std::size_t>(4 * bend + 1)),
        bendWeights(PathWeights(2 * bend, bend + 1)) {
    const std::vector<double> widest =
        settings.pathWeights.empty() ? PathWeights(settings.window, half + 1) : settings.pathWeights;
    weights = CLadder::MakeWeights(settings.window, widest);
    for (int i = 0; i < 3; ++i) pyramids.emplace_back(format);
    if (settings.keepBackground) MakeCanvas();
  }

  std::int64_t Newest() const { return track.Frames() - 1; }
  Pyramid& PyramidOf(std::int64_t frame) { return pyramids[static_cast<std::size_t>(frame % 3)]; }

  std::ptrdiff_t RowBytes(int plane) const {
    return std::ptrdiff_t{shown.output.PlaneWidth(plane)} * shown.output.BytesPerSample();
  }
  void MakeCanvas();
  void SetReference(std::int64_t frame);
  void TieFrame(std::int64_t frame);
  void MeasureSinceReference(std::int64_t frame);
  void PlanUpTo(std::int64_t last);
  Correction HeldCorrection(std::int64_t frame);
  Correction CorrectionOf(std::int64_t frame);
  void Draw(const Correction& correction, const Picture& out);
  FrameReport Release(const Correction& correction);
  void DrawOnCanvas(const Correction& correction, bool isChroma, const ConstPicture& in, const Picture& out,
                    std::int32_t begin, std::int32_t end, bool isNewOnCanvas);

  const Loops& loops;
  RowRunner runner;
  Settings settings;
  Shown shown;
  HalfSizes sizes;
  bool hasMargins;
  std::int32_t half;   ///< frames that the low-pass looks ahead and back
  std::int32_t bend;   ///< frames that the minimum of the reaches looks ahead and back, and their mean, too
  std::int32_t delay;  ///< frames that must follow the one delivered
  CMotionEstimator estimator;
  std::vector<Pyramid> pyramids;  ///< of the three newest frames
  Pyramid reference;              ///< on a tripod: of the shot's first frame
  FrameRing<ConstPicture> lent;
  CTrack track;
  FrameRing<Similarity> sinceReference;  ///< on a tripod: motion of the content from the shot's first frame
  std::int64_t referenceFrame = 0;
  FrameRing<PathPoint> path;
  CLadder::Weights weights;
  std::vector<Similarity> poses;
  std::vector<double> reaches, bendWeights;
  std::int64_t planned = 0, delivered = 0;  ///< number of frames with a path point, and of frames delivered
  bool ended = false;
  std::array<std::vector<std::uint8_t>, kMaxPlanes> canvas;  ///< what was last seen, for a kept background
  Picture canvasPlanes;
  std::int64_t canvasShot = -1;  ///< the shot that the canvas shows, none at first
};

void CStabilizer::Stream::MakeCanvas() {
  for (int plane = 0; plane < shown.output.planes; ++plane) {
    const auto i = static_cast<std::size_t>(plane);
    const std::ptrdiff_t rowBytes = RowBytes(plane);
    canvas[i].resize(static_cast<std::size_t>(rowBytes * shown.output.PlaneHeight(plane)));
    canvasPlanes[i] = {canvas[i].data(), rowBytes};
  }
}

/// Ties the frame to the one before it.
void CStabilizer::Stream::TieFrame(std::int64_t frame) {
  if (frame == 0) return track.Start();
  // The last motion is not used as a guess: each frame would then depend on all before it, beyond the fixed
  // reach.
  if (!track.Append(estimator.Estimate(PyramidOf(frame - 1), PyramidOf(frame), {}))) return;
  track.Bridge(estimator.Estimate(PyramidOf(frame - 2), PyramidOf(frame), {}));
}

/// Makes the frame the one that the rest of its shot is aligned with.
void CStabilizer::Stream::SetReference(std::int64_t frame) {
  referenceFrame = frame;
  BuildPyramid(lent[frame][0], shown.input.bitsPerSample, loops, runner, reference);
  sinceReference[frame] = {};
}

/// Measures the frame's motion since the first of its shot.
void CStabilizer::Stream::MeasureSinceReference(std::int64_t frame) {
  if (frame == 0) return SetReference(0);
  // Only now is it known whether the frame before begins a shot.
  if (track[frame - 1].tie == Tie::Cut && referenceFrame != frame - 1) SetReference(frame - 1);

  Similarity& since = sinceReference[frame];
  since = Compose(Rigid(track[frame].motion), sinceReference[frame - 1]);
  const double distance = Length(since.shift);
  if (distance > kFarthestShift) since.shift = kFarthestShift / distance * since.shift;
  const Match match = estimator.Estimate(reference, PyramidOf(frame), {&since, 1});
  if (match.IsSameScene()) since = Rigid(match.map);
}

/// Makes the path points of all frames up to the last.
void CStabilizer::Stream::PlanUpTo(std::int64_t last) {
  for (; planned <= last; ++planned) {
    FindPoses(track, planned, poses);
    if (!settings.correctRoll)
      for (Similarity& pose : poses) pose.turn = {1, 0};
    PathPoint& point = path[planned];
    point.ladder = CLadder(poses, weights);
    if (settings.tripod) point.ladder.SetLast(HeldCorrection(planned));
    point.reach = point.ladder.Reach(sizes);
  }
}

/// The correction that aligns the frame with the first of its shot.
Correction CStabilizer::Stream::HeldCorrection(std::int64_t frame) {
  const Correction held = Inverse(sinceReference[frame]);
  return settings.correctRoll ? held : Correction{.shift = held.shift};
}

/// The frame's correction: the strongest without margins, otherwise one that keeps edges out.
Correction CStabilizer::Stream::CorrectionOf(std::int64_t frame) {
  if (!hasMargins) return path[frame].ladder.At(CLadder::kHighest);
  const auto inShot = [&](std::int64_t other) {
    return other >= 0 && other < planned && track[other].shot == track[frame].shot;
  };
  std::int64_t first = frame, last = frame;
  while (first > frame - 2 * bend && inShot(first - 1)) --first;
  while (last < frame + 2 * bend && inShot(last + 1)) ++last;
  for (std::int64_t i = first; i <= last; ++i) reaches[static_cast<std::size_t>(i - first)] = path[i].reach;
  const double position =
      SmoothReach({reaches.data(), static_cast<std::size_t>(last - first + 1)}, frame - first, bendWeights);
  return path[frame].ladder.FittingAt(position, sizes);
}

void CStabilizer::Stream::Draw(const Correction& correction, const Picture& out) {
  const ConstPicture& in = lent[delivered];
  const bool isNewOnCanvas = std::exchange(canvasShot, track[delivered].shot) != track[delivered].shot;
  for (const bool isChroma : {false, true}) {
    const int plane = shown.output.CositedPlanes(isChroma)[0];
    if (plane < 0) continue;
    RunRows(runner, shown.output.PlaneHeight(plane), [&](std::int32_t begin, std::int32_t end) {
      if (settings.keepBackground)
        DrawOnCanvas(correction, isChroma, in, out, begin, end, isNewOnCanvas);
      else
        WarpPlanes(shown, correction, isChroma, in, out, begin, end, false, loops);
    });
  }
}

/// Counts the oldest frame as delivered, and reports on it.
FrameReport CStabilizer::Stream::Release(const Correction& correction) {
  const std::int64_t number = delivered++;
  const Link& link = track[number];
  const double aspect = shown.input.pixelAspect;
  const auto movement = [aspect](const Similarity& map) {
    return Movement{map.shift.re / aspect, map.shift.im, Angle(map.turn)};
  };
  return {.frame = number,
          .shot = link.shot,
          .motion = movement(link.motion),
          .zoom = Length(link.motion.turn),
          .correction = movement(correction)};
}

/// Draws rows begin … end - 1 on the canvas, over what earlier frames left there, and copies them to `out`.
void CStabilizer::Stream::DrawOnCanvas(const Correction& correction, bool isChroma, const ConstPicture& in,
                                       const Picture& out, std::int32_t begin, std::int32_t end,
                                       bool isNewOnCanvas) {
  const auto forEachRow = [&](const auto& work) {
    for (const int plane : shown.output.CositedPlanes(isChroma))
      for (std::int32_t row = begin; plane >= 0 && row < end; ++row)
        work(static_cast<std::size_t>(plane), row);
  };
  const std::int32_t width = shown.output.PlaneWidth(isChroma ? 1 : 0);
  const int bytes = shown.output.BytesPerSample();
  if (isNewOnCanvas)
    forEachRow([&](std::size_t plane, std::int32_t row) {
      const auto& [samples, strideBytes] = canvasPlanes[plane];
      FillSamples(samples + row * strideBytes, {0, width}, shown.background[plane], bytes);
    });
  WarpPlanes(shown, correction, isChroma, in, canvasPlanes, begin, end, true, loops);
  forEachRow([&](std::size_t plane, std::int32_t row) {
    const auto& [samples, strideBytes] = canvasPlanes[plane];
    std::memcpy(out[plane].data + row * out[plane].strideBytes, samples + row * strideBytes,
                static_cast<std::size_t>(strideBytes));
  });
}

CStabilizer::CStabilizer(const PictureFormat& format, const Settings& settings, SimdLevel cap,
                         RowRunner runner)
    : m_pStream(std::make_unique<Stream>(format, settings, cap, std::move(runner))) {}

CStabilizer::~CStabilizer() = default;

std::int32_t CStabilizer::DelayFrames() const { return static_cast<std::int32_t>(m_pStream->delay); }

void CStabilizer::Push(const ConstPicture& frame) {
  Stream& stream = *m_pStream;
  const std::int64_t number = stream.track.Frames();
  stream.lent[number] = frame;
  BuildPyramid(frame[0], stream.shown.input.bitsPerSample, stream.loops, stream.runner,
               stream.PyramidOf(number));
  stream.TieFrame(number);
  if (stream.settings.tripod) stream.MeasureSinceReference(number);
  stream.PlanUpTo(number - stream.half);
}

void CStabilizer::End() {
  Stream& stream = *m_pStream;
  stream.ended = true;
  stream.track.End();
  if (stream.settings.tripod && stream.Newest() >= 0 && stream.track[stream.Newest()].tie == Tie::Cut)
    stream.sinceReference[stream.Newest()] = {};
  stream.PlanUpTo(stream.Newest());
}

bool CStabilizer::CanDeliver() const {
  const Stream& stream = *m_pStream;
  return stream.delivered <= (stream.ended ? stream.Newest() : stream.Newest() - stream.delay);
}

FrameReport CStabilizer::Deliver(const Picture& out) {
  Stream& stream = *m_pStream;
  const Correction correction = stream.CorrectionOf(stream.delivered);
  stream.Draw(correction, out);
  return stream.Release(correction);
}

FrameReport CStabilizer::Skip() { return m_pStream->Release(m_pStream->CorrectionOf(m_pStream->delivered)); }

}  // namespace precise
