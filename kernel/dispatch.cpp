#include "kernel/dispatch.h"

#include <array>

namespace {

// The tables are constants. A local static would need a guard, which takes a thread-local slot in a Windows
// module. Unloading does not free that slot, so a process would run out of slots after a thousand loads.

#if defined(__x86_64__)
constexpr KernelOps kAvx2Ops = {"avx2",          avx2::CopyBytes,         avx2::GreyRow,
                                avx2::ReduceRow, avx2::AddTranslationRow, avx2::AddRotationRow,
                                avx2::SampleRow, avx2::WarpRowNearest,    avx2::WarpRowBilinear};
constexpr std::array kTables = {&kScalarOps, &kAvx2Ops};
#else
constexpr std::array kTables = {&kScalarOps};
#endif

/// The tables that a machine with these features can run and `cap` allows, scalar first.
std::span<const KernelOps* const> Tables(const CpuFeatures& features, SimdLevel cap) {
  return std::span(kTables).first(AllowsTwins(features, cap) ? kTables.size() : 1);
}

}  // namespace

const KernelOps& SelectOps(const CpuFeatures& features, SimdLevel cap) {
  return *Tables(features, cap).back();
}

std::span<const KernelOps* const> AvailableOps() { return Tables(DetectCpuFeatures(), SimdLevel::Avx2); }

const KernelOps& BestOps() { return *AvailableOps().back(); }
