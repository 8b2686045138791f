#pragma once

#include <span>

#include "base/simd.h"
#include "kernel/loops.h"

/// The widest loops that a machine with these features can run, at most of level `cap`. This machine must
/// have the features.
const KernelOps& SelectOps(const CpuFeatures& features, SimdLevel cap);

/// The tables of loops that this machine can run, plainest first.
std::span<const KernelOps* const> AvailableOps();

/// The fastest of them.
const KernelOps& BestOps();
