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
  Similarity map;           ///< from the content's place in the earlier frame to that in the later one
  double likeness = 0;      ///< correlation of the frames' gradients after alignment, -1 to 1
  bool hasTexture = false;  ///< both frames show more structure than noise explains

  /// The frames show the same scene, and the map tells how it moved.
  bool IsSameScene() const;
  /// Both frames show something, and not the same.
  bool IsOtherScene() const { return hasTexture && !IsSameScene(); }
};

/// Measures the motion between two frames of one format. Scratch memory is made once.
class CMotionEstimator {
 public:
  /// Estimates from the whole picture, or from a region of it, which is usable. Throws std::bad_alloc.
  CMotionEstimator(const PictureFormat& format, const std::optional<Rect>& region, const Loops& loops);

  /// Shift, roll, and zoom of the content from `earlier` to `later`, by inverse-compositional Gauss-Newton
  /// steps (Baker and Matthews, "Lucas-Kanade 20 years on", 2004) with Tukey weights, coarse to fine. Gain
  /// and offset of the brightness are estimated along. `guesses` are motions that are tried beside none at
  /// all and the best shift of a full search.
  Match Estimate(const Pyramid& earlier, const Pyramid& later, std::span<const Similarity> guesses);

 private:
  /// Two frames at one level, and the samples that count.
  struct View {
    const Plane* earlier;
    const Plane* later;
    const Plane* laterSmooth;
    double scale;    ///< pixels of the frame in a sample
    Complex centre;  ///< of the picture, in samples
    double aspect;   ///< width of a sample as it is shown, over its height
    double radius;   ///< half the longer side of the picture, in samples as they are shown
    Rect region;     ///< samples of the earlier frame, all with neighbours
  };

  /// The later frame's brightness is 512 + gain·(earlier - 512) + offset, where the map leads.
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
  std::vector<std::int16_t> m_residuals;  // rows as wide as those of the level at hand
  std::int32_t m_lastMedian = 4;          // residuals of the next step will hardly be larger
};

}  // namespace precise
