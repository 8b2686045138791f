#pragma once

#include <span>

#include "kernel/loops.h"

/// What a processor offers, as far as the operating system lets programs use it.
struct CpuFeatures {
  bool avx2 = false;
};

/// Instruction sets that there are loops for, plainest first.
enum class SimdLevel { Scalar, Avx2 };

/// The features of this machine.
CpuFeatures DetectCpuFeatures();

/// The widest loops that a machine with these features can run, at most of level `cap`. This machine must
/// have the features.
const KernelOps& SelectOps(const CpuFeatures& features, SimdLevel cap);

/// The tables of loops that this machine can run, plainest first.
std::span<const KernelOps* const> AvailableOps();

/// The fastest of them.
const KernelOps& BestOps();
