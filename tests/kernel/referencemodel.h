#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <vector>

#include "kernel/kernelparams.h"

/// The stabilization kernel once more, as a definition: whole planes are built, moved and read sample by
/// sample, every loop runs to its own stop rule, nothing is kept for speed. It is deliberately slow and
/// literal, and shares no code with the kernel but the solver, so that it can judge the fast code byte by
/// byte.
namespace reference {

/// Sine and cosine of a finite angle in radians. Whole runs compare equal only when both sides use the same
/// function.
using SineCosineFunction = std::function<void(double radians, double* sine, double* cosine)>;

using Plane = std::vector<std::int32_t>;  ///< row by row, without padding
using Frame = std::vector<std::uint8_t>;  ///< bottom-up rows of blue, green, red, padded to 4 bytes

/// One pyramid level. The estimate of a level other than 0 is doubled, ready for the next finer one.
struct Level {
  int width, height;
  Plane previous, current;
  MotionRecord estimate;
};

class ReferenceModel {
 public:
  explicit ReferenceModel(SineCosineFunction sineCosine);

  /// False for margins, clipping option or window length out of range. The region must lie in the frame.
  bool Initialize(const KernelParams& params);

  /// `pixels` holds one frame; it is overwritten only when `*noOutput` becomes false.
  bool ProcessFrame(std::uint8_t* pixels, bool repeatPrevious, bool* noOutput);

  MotionRecord LatestMotion() const { return m_motion.back(); }
  MotionRecord LatestCorrection() const { return m_correction; }  ///< of the frame delivered last, or zeros

 private:
  void BuildPyramid();
  void EstimateMotion();
  void EstimateTranslation(std::size_t index);
  void EstimateRotation(std::size_t index);
  MotionRecord StartOf(std::size_t index) const;
  MotionRecord ComputeCorrection() const;
  std::int32_t ComputeZoomStep() const;
  void CompensateFrame(const MotionRecord& correction, std::uint8_t* pixels) const;
  void MoveFrame(const MotionRecord& correction, std::uint8_t* pixels) const;
  void WarpFrame(const MotionRecord& correction, std::uint8_t* pixels) const;
  void SamplePixel(std::int64_t x, std::int64_t y, std::uint8_t* to) const;
  void DrawOutline(std::uint8_t* pixels) const;
  void CropFrame(std::uint8_t* pixels) const;
  void FillRows(std::uint8_t* pixels, int from, int to) const;
  void FillColumns(std::uint8_t* pixels, int from, int to) const;

  SineCosineFunction m_sineCosine;
  KernelParams m_params{};
  std::int64_t m_stride = 0, m_frameSize = 0;
  std::size_t m_latencyCount = 0;
  std::vector<std::int32_t> m_weights;
  std::int32_t m_zoomStep = 32;
  Rect m_outputRect{};
  std::vector<Level> m_levels;        ///< finest first
  std::deque<Frame> m_history;        ///< oldest first
  std::deque<MotionRecord> m_motion;  ///< oldest first, always one window long
  MotionRecord m_correction{};
};

}  // namespace reference
