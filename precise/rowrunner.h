#pragma once

#include <cstdint>
#include <functional>

namespace precise {

/// Works on rows begin … end - 1. Calls for different rows may run on several threads at once.
using RowWork = void (*)(const void* context, std::int32_t begin, std::int32_t end);

/// Calls `work(context, begin, end)` for ranges that cover each of the rows 0 … rows - 1 once, in any order
/// and on any threads. Returns when all calls have returned. The engine has no threads; a program lends it
/// some by such a runner.
using RowRunner = std::function<void(std::int32_t rows, RowWork work, const void* context)>;

/// Calls `work(begin, end)` for all rows through the runner, or in one call where the runner is empty.
/// Allocates nothing.
template <class Work>
void RunRows(const RowRunner& runner, std::int32_t rows, const Work& work) {
  if (!runner) return work(0, rows);
  const RowWork call = [](const void* context, std::int32_t begin, std::int32_t end) {
    (*static_cast<const Work*>(context))(begin, end);
  };
  runner(rows, call, &work);
}

}  // namespace precise
