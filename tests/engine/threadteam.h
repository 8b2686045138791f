#pragma once

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>
#include <utility>
#include <vector>

/// Threads that repeat their work until the team is told to end.
class ThreadTeam {
 public:
  /// `work(random)` gets a generator of its thread's own.
  template <class Work>
  void Repeat(Work work) {
    m_threads.emplace_back([this, work = std::move(work), seed = m_threads.size()] {
      std::mt19937 random(static_cast<unsigned>(seed));
      while (!m_stop) work(random);
    });
  }

  /// Ends the work once there was enough of it. A deadlock ends the program with a word instead of the
  /// patience of whoever started it.
  template <class Condition>
  void WorkUntil(Condition isEnough) {
    std::atomic<bool> ended = false;
    std::thread watchdog([&] {
      for (int i = 0; i < 1200 && !ended; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(100));
      if (ended) return;
      std::fputs("[  FAILED  ] threads stand still (120000 ms)\n", stdout);
      std::fflush(stdout);
      std::_Exit(1);
    });
    while (!isEnough()) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    m_stop = true;
    for (std::thread& thread : m_threads) thread.join();
    ended = true;
    watchdog.join();
  }

 private:
  std::atomic<bool> m_stop = false;
  std::vector<std::thread> m_threads;
};
