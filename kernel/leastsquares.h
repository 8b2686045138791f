#pragma once

#include "kernel/loops.h"

/// A solution of the normal equations: degrees and samples.
struct MotionUpdate {
  double theta = 0, x = 0, y = 0;
};

/// Solve for the update that explains the sums. An axis without any gradient stays at zero. Every axis is
/// zero when the equations are singular, when a result is not finite, or when its whole steps do not fit 32
/// bits.
MotionUpdate SolveTranslation(const TranslationSums& sums);
MotionUpdate SolveRotation(const RotationSums& sums);
