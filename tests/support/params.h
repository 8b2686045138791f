#pragma once

#include <algorithm>

#include "kernel/kernelparams.h"
#include "support/choices.h"

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

/// Any settings of such frames, which a kernel accepts when both sides are at least 2.
inline KernelParams ChooseParams(Choices& choices, std::int32_t width, std::int32_t height) {
  const auto below = [&](std::int32_t limit) { return choices.Number(0, std::max(limit - 1, 0)); };
  const auto margin = [&](std::int32_t side) {
    return choices.OneOf({0, below(side / 2), std::min(2, std::max(side / 2 - 1, 0))});
  };
  KernelParams params = {.width = width,
                         .height = height,
                         .roi = {0, 0, width, height},
                         .estimationCoefficients = choices.OneOf({0U, 1U, 1U, 0U, 2U}),
                         .estimationQuality = choices.Byte() % 5,
                         .gaussianWeights = choices.Number(-1, 1),
                         .windowLength = choices.OneOf({4, 4, 8, 12}),
                         .backgroundColor = {17, 130, 243},
                         .cropMarginX = margin(width),
                         .cropMarginY = margin(height),
                         .interpolation = choices.OneOf({0U, 1U, 1U, 9U}),
                         .clippingOption = choices.Byte() % 3};
  if (choices.Once(3)) {
    const std::int32_t left = below(width), top = below(height);
    params.roi = {left, top, left + 1 + below(width - left), top + 1 + below(height - top)};
  }
  return params;
}
