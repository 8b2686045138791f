#pragma once

/// What a processor offers, as far as the operating system lets programs use it.
struct CpuFeatures {
  bool avx2 = false;
};

/// Instruction sets that there are loops for, plainest first. A cap of `Avx2` allows all that a machine has:
/// on 64-bit ARM, whose processors all have NEON, the loops for that.
enum class SimdLevel { Scalar, Avx2 };

/// The features of this machine.
CpuFeatures DetectCpuFeatures();

/// True when machines with these features may run more than scalar loops, at most of level `cap`.
bool AllowsTwins(const CpuFeatures& features, SimdLevel cap);
