#include "precise/loops.h"

namespace precise {

const Loops& SelectLoops([[maybe_unused]] SimdLevel cap) {
#if defined(__x86_64__) || defined(__aarch64__)
  if (AllowsTwins(DetectCpuFeatures(), cap)) return kVectorLoops;
#endif
  return kScalarLoops;
}

}  // namespace precise
