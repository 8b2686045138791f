#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "base/matrix.h"
#include "base/rect.h"
#include "precise/loops.h"
#include "precise/picture.h"
#include "precise/pyramid.h"
#include "precise/similarity.h"
#include "precise/stabilizer.h"

namespace precise {

/// How two frames are related.
struct Match {
  Similarity map;           ///< from the content's place in the earlier frame to its place in the later one
  double likeness = 0;      ///< correlation of the frames' gradients after alignment, -1 to 1
  bool hasTexture = false;  ///< both frames show more structure than noise explains

  /// The frames show the same scene, and the map tells how it moved.
  bool IsSameScene() const;
  /// Both frames have texture, but it differs.
  bool IsOtherScene() const { return hasTexture && !IsSameScene(); }
};

/// Measures the motion between two frames of one format. Scratch memory is made once.
class CMotionEstimator {
 public:
  /// Estimates from a region of the frames, or from the whole frames. `AreUsable` says what format and region
  /// may be. Throws std::bad_alloc.
  CMotionEstimator(const PictureFormat& format, const std::optional<Rect>& region, const Loops& loops);

  /// Shift, roll, and zoom of the content from `earlier` to `later`, by inverse-compositional Gauss-Newton
  /// steps (Baker and Matthews, "Lucas-Kanade 20 years on", 2004) with Tukey weights, coarse to fine. Gain
  /// and offset of the brightness are estimated with them.
  ///
  /// The coarsest level starts from no motion, from each of `guesses`, and from the best shift of a full
  /// search, and goes on with the one that fits best. An implausibly large motion becomes the identity. A
  /// region of less than 12 samples a side at the finest level gives `Match{}`.
  Match Estimate(const Pyramid& earlier, const Pyramid& later, std::span<const Similarity> guesses);

 private:
  /// Two frames at one level, and the samples that count.
  struct View {
    const Plane* earlier;  ///< smooth
    const Plane* later;    ///< not smooth: `residualRow` filters what it reads
    const Plane* laterSmooth;
    double scale;    ///< how many columns and rows of the frame make one sample
    Complex centre;  ///< of the picture, in samples
    double aspect;   ///< width over height of a displayed sample
    double radius;   ///< half the longer side of the displayed picture, in sample heights
    Rect region;     ///< samples of the earlier frame, all with neighbours
  };

  /// A sample b of the earlier frame is 512 + gain·(b - 512) + offset in the later one, where the map takes
  /// it.
  struct Alignment {
    Similarity map;
    double gain = 1, offset = 0;
  };

  struct ComparedCell {
    GradientProducts products;
    std::int32_t samples = 0;
  };

  View ViewOf(const Pyramid& earlier, const Pyramid& later, std::size_t level) const;
  Alignment BestStart(const View& view, std::span<const Similarity> guesses);
  void Refine(const View& view, Alignment& alignment, int steps, int shiftSteps = 0);
  double Step(const View& view, Alignment& alignment, bool shiftOnly);
  Similarity SearchShift(const View& view, std::int32_t cap) const;
  std::int64_t FillResiduals(const View& view, const Similarity& map, const Exposure& exposure);
  std::int64_t CountBelow(const View& view, std::int32_t limit);
  double MedianResidual(const View& view, std::int64_t count);
  double Cost(const View& view, const Alignment& alignment, double cap);
  Match Compare(const View& view, const Similarity& map);
  ComparedCell CompareCell(const View& view, std::int32_t left, std::int32_t top);

  std::int16_t* ResidualRowOf(const View& view, std::int32_t row) {
    return m_residuals.data() + std::ptrdiff_t{row} * view.earlier->Width();
  }

  const Loops* m_pLoops;
  PictureFormat m_format;
  Rect m_region;
  std::vector<std::int16_t> m_residuals;  // of one level, in rows without padding
  std::int32_t m_lastMedian = 4;          // where the search for the next median starts
};

}  // namespace precise
