#pragma once

#include <span>

#include "base/simd.h"
#include "kernel/loops.h"

/// The fastest loops that need no more than `features` and are allowed by `cap`. The caller makes sure that
/// this machine has the features.
const KernelOps& SelectOps(const CpuFeatures& features, SimdLevel cap);

/// The tables of loops that this machine can run, scalar first and fastest last.
std::span<const KernelOps* const> AvailableOps();

/// The fastest loops that this machine can run.
const KernelOps& BestOps();
