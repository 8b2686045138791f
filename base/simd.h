#pragma once

/// Instruction sets that the processor has and the operating system supports.
struct CpuFeatures {
  bool avx2 = false;
};

/// Upper limits for the choice of loops. `Avx2` allows every loop that the machine can run. On 64-bit ARM
/// that includes the NEON loops, as all its processors have NEON.
enum class SimdLevel { Scalar, Avx2 };

/// The features of this machine.
CpuFeatures DetectCpuFeatures();

/// Every scalar loop has a twin: a vector loop that gives the same bytes. Returns whether a machine with
/// these features can run the twins and `cap` allows them.
bool AllowsTwins(const CpuFeatures& features, SimdLevel cap);
