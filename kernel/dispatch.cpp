#include "kernel/dispatch.h"

#include <array>

namespace {

constexpr std::array kSimdLevels = {SimdLevel::Scalar, SimdLevel::Avx2};

}  // namespace

CpuFeatures DetectCpuFeatures() {
  CpuFeatures features;
#if defined(__x86_64__)
  // This asks the operating system, too: it must save the wide registers.
  __builtin_cpu_init();
  features.avx2 = __builtin_cpu_supports("avx2") != 0;
#endif
  return features;
}

const KernelOps& SelectOps(const CpuFeatures& features, SimdLevel cap) {
  if (!features.avx2 || cap < SimdLevel::Avx2) return kScalarOps;
#if defined(__x86_64__)
  // Made only here: even the functions that fill it in may use the wide instructions.
  static const KernelOps avx2 = [] {
    KernelOps ops = kScalarOps;
    ops.name = "avx2";
    SetAvx2RowLoops(ops);
    SetAvx2SamplingLoops(ops);
    return ops;
  }();
  return avx2;
#else
  return kScalarOps;
#endif
}

std::span<const KernelOps* const> AvailableOps() {
  struct Tables {
    std::array<const KernelOps*, kSimdLevels.size()> ops = {};
    std::size_t count = 0;
  };
  static const Tables tables = [] {
    Tables all;
    for (const SimdLevel level : kSimdLevels) {
      const KernelOps& ops = SelectOps(DetectCpuFeatures(), level);
      if (all.count == 0 || all.ops[all.count - 1] != &ops) all.ops[all.count++] = &ops;
    }
    return all;
  }();
  return {tables.ops.data(), tables.count};
}

const KernelOps& BestOps() { return *AvailableOps().back(); }
