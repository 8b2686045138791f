#pragma once

#include <cstdint>
#include <functional>

namespace precise {

/// Works on rows begin … end - 1. Calls for different rows may run at the same time.
using RowWork = void (*)(const void* context, std::int32_t begin, std::int32_t end);

/// Calls `work(context, begin, end)` for ranges that make up 0 … rows - 1, each row once, in any order and on
/// any threads, and returns when all are done. So programs with threads lend them to the engine, which has
/// none.
using RowRunner = std::function<void(std::int32_t rows, RowWork work, const void* context)>;

/// Runs `work(begin, end)` over the rows by the runner, or where it is empty by one call. Allocates nothing.
template <class Work>
void RunRows(const RowRunner& runner, std::int32_t rows, const Work& work) {
  if (!runner) return work(0, rows);
  const RowWork call = [](const void* context, std::int32_t begin, std::int32_t end) {
    (*static_cast<const Work*>(context))(begin, end);
  };
  runner(rows, call, &work);
}

}  // namespace precise
