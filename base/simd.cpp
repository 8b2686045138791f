#include "base/simd.h"

CpuFeatures DetectCpuFeatures() {
  CpuFeatures features;
#if defined(__x86_64__)
  // False, too, when the operating system does not save the wide registers.
  __builtin_cpu_init();
  features.avx2 = __builtin_cpu_supports("avx2") != 0;
#endif
  return features;
}

bool AllowsTwins(const CpuFeatures& features, SimdLevel cap) {
#if defined(__x86_64__)
  return features.avx2 && cap >= SimdLevel::Avx2;
#else
  static_cast<void>(features);
  return cap > SimdLevel::Scalar;
#endif
}
