#pragma once

#include "kernel/loops.h"

/// A solution of the normal equations: degrees and samples.
struct MotionUpdate {
  double theta = 0, x = 0, y = 0;
};

/// Solve the normal equations. An axis without any gradient gets zero. All axes get zero when the equations
/// are singular, a result is not finite, or x or y does not fit 32 bits.
MotionUpdate SolveTranslation(const TranslationSums& sums);
MotionUpdate SolveRotation(const RotationSums& sums);
