#pragma once

#include <span>
#include <string_view>

#include "kernel/loops.h"

/// The tables of loops that this machine can run, plainest first.
std::span<const KernelOps* const> AvailableOps();

/// The fastest of them.
const KernelOps& BestOps();

/// The available table of that name, or null.
const KernelOps* FindOps(std::string_view name);
