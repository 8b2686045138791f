#include "kernel/dispatch.h"

#include <array>

CpuFeatures DetectCpuFeatures() {
  CpuFeatures features;
#if defined(__x86_64__)
  // This asks the operating system, too: it must save the wide registers.
  __builtin_cpu_init();
  features.avx2 = __builtin_cpu_supports("avx2") != 0;
#endif
  return features;
}

namespace {

// Tables are made while the program or module is loaded: in a Windows module the guard of a local static
// takes a thread-local slot that unloading does not give back, and after a thousand loads a process has none
// left.

#if defined(__x86_64__)
/// The plain loops where there is no AVX2: even the functions that fill it in may use the wide instructions.
KernelOps MakeAvx2Ops() noexcept {
  KernelOps ops = kScalarOps;
  if (!DetectCpuFeatures().avx2) return ops;
  ops.name = "avx2";
  SetAvx2RowLoops(ops);
  SetAvx2SamplingLoops(ops);
  return ops;
}

const KernelOps kAvx2Ops = MakeAvx2Ops();
#endif

constexpr std::array kSimdLevels = {SimdLevel::Scalar, SimdLevel::Avx2};

struct Tables {
  std::array<const KernelOps*, kSimdLevels.size()> ops = {};
  std::size_t count = 0;
};

Tables MakeTables() noexcept {
  Tables all;
  for (const SimdLevel level : kSimdLevels) {
    const KernelOps& ops = SelectOps(DetectCpuFeatures(), level);
    if (all.count == 0 || all.ops[all.count - 1] != &ops) all.ops[all.count++] = &ops;
  }
  return all;
}

const Tables kTables = MakeTables();

}  // namespace

const KernelOps& SelectOps(const CpuFeatures& features, SimdLevel cap) {
#if defined(__x86_64__)
  if (features.avx2 && cap >= SimdLevel::Avx2) return kAvx2Ops;
#endif
  return kScalarOps;
}

std::span<const KernelOps* const> AvailableOps() { return {kTables.ops.data(), kTables.count}; }

const KernelOps& BestOps() {
  // There are no tables yet for what is constructed while the program is loaded.
  return kTables.count > 0 ? *AvailableOps().back() : kScalarOps;
}
