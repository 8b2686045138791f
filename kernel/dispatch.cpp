#include "kernel/dispatch.h"

std::span<const KernelOps* const> AvailableOps() {
  static constexpr const KernelOps* kTables[] = {&kScalarOps};
  return kTables;
}

const KernelOps& BestOps() { return *AvailableOps().back(); }

const KernelOps* FindOps(std::string_view name) {
  for (const KernelOps* const ops : AvailableOps())
    if (ops->name == name) return ops;
  return nullptr;
}
