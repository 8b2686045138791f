#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "precise/rowrunner.h"

/// Threads that share the rows of a picture with the caller. When the encoder keeps the other cores busy, the
/// caller does most rows itself.
class RowTeam {
 public:
  /// One thread for each core but the caller's, up to a limit.
  RowTeam();
  ~RowTeam();
  RowTeam(const RowTeam&) = delete;
  RowTeam& operator=(const RowTeam&) = delete;

  /// Valid as long as the team lives.
  precise::RowRunner Runner();

 private:
  void Run(std::int32_t rows, precise::RowWork work, const void* context);
  void Serve();
  bool TakeRange(std::unique_lock<std::mutex>& lock);

  std::mutex m_mutex;
  std::condition_variable m_begun, m_done;
  precise::RowWork m_work = nullptr;
  const void* m_pContext = nullptr;
  std::int32_t m_rows = 0, m_next = 0, m_step = 1;
  int m_busy = 0;  // threads inside a range, the caller's included
  bool m_isEnding = false;
  std::vector<std::thread> m_threads;
};
