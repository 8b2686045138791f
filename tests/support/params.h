#pragma once

#include <ostream>

#include "kernel/kernelparams.h"

/// The default settings for frames of this size.
inline KernelParams DefaultParams(std::int32_t width, std::int32_t height) {
  return {.width = width,
          .height = height,
          .roi = {0, 0, width, height},
          .estimationCoefficients = 0,
          .estimationQuality = 2,
          .gaussianWeights = 0,
          .windowLength = 32,
          .backgroundColor = {0, 0, 0},
          .cropMarginX = 0,
          .cropMarginY = 0,
          .interpolation = 1,
          .clippingOption = 0};
}

/// Prints what reproduces a failed case.
inline std::ostream& operator<<(std::ostream& stream, const KernelParams& params) {
  return stream << params.width << "x" << params.height << " roi " << params.roi.left << "," << params.roi.top
                << "," << params.roi.right << "," << params.roi.bottom << " coefficients "
                << params.estimationCoefficients << " quality " << params.estimationQuality << " gaussian "
                << params.gaussianWeights << " window " << params.windowLength << " margins "
                << params.cropMarginX << "," << params.cropMarginY << " interpolation "
                << params.interpolation << " clipping " << params.clippingOption;
}
