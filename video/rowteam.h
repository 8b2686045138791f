#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "precise/rowrunner.h"

/// Threads that take ranges of rows, beside the one that hands them out. Idle cores help; where the encoder
/// keeps all of them busy, the caller does most of the rows itself.
class RowTeam {
 public:
  /// As many threads as there are further cores, a few at most.
  RowTeam();
  ~RowTeam();
  RowTeam(const RowTeam&) = delete;
  RowTeam& operator=(const RowTeam&) = delete;

  /// Valid as long as the team is.
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
