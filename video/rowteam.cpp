#include "video/rowteam.h"

#include <algorithm>

namespace {

constexpr unsigned kMostThreads = 7;
// More ranges than threads, so that the others take over most of a slow thread's rows.
constexpr std::int32_t kRangesPerThread = 4, kFewestRows = 16;

}  // namespace

RowTeam::RowTeam() {
  const unsigned further = std::max(1U, std::thread::hardware_concurrency()) - 1;
  while (m_threads.size() < std::min(further, kMostThreads)) m_threads.emplace_back([this] { Serve(); });
}

RowTeam::~RowTeam() {
  {
    const std::scoped_lock lock(m_mutex);
    m_isEnding = true;
  }
  m_begun.notify_all();
  for (std::thread& thread : m_threads) thread.join();
}

precise::RowRunner RowTeam::Runner() {
  if (m_threads.empty()) return {};
  return [this](std::int32_t rows, precise::RowWork work, const void* context) { Run(rows, work, context); };
}

void RowTeam::Run(std::int32_t rows, precise::RowWork work, const void* context) {
  if (rows < 2 * kFewestRows) return work(context, 0, rows);
  std::unique_lock lock(m_mutex);
  const auto ranges = static_cast<std::int32_t>(m_threads.size() + 1) * kRangesPerThread;
  m_work = work;
  m_pContext = context;
  m_rows = rows;
  m_next = 0;
  m_step = std::max(kFewestRows, (rows + ranges - 1) / ranges);
  m_begun.notify_all();
  while (TakeRange(lock)) {
  }
  m_done.wait(lock, [this] { return m_busy == 0; });
}

void RowTeam::Serve() {
  std::unique_lock lock(m_mutex);
  while (true) {
    m_begun.wait(lock, [this] { return m_isEnding || m_next < m_rows; });
    if (m_isEnding) return;
    while (TakeRange(lock)) {
    }
  }
}

/// Takes a range and works on it with the lock released; false when none is left.
bool RowTeam::TakeRange(std::unique_lock<std::mutex>& lock) {
  if (m_next >= m_rows) return false;
  const std::int32_t begin = m_next, end = std::min(m_rows, begin + m_step);
  m_next = end;
  ++m_busy;
  lock.unlock();
  m_work(m_pContext, begin, end);
  lock.lock();
  if (--m_busy == 0) m_done.notify_one();
  return true;
}
