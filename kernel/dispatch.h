#pragma once

#include <span>

#include "kernel/loops.h"

/// The tables of loops that this machine can run, plainest first.
std::span<const KernelOps* const> AvailableOps();

/// The fastest of them.
const KernelOps& BestOps();
