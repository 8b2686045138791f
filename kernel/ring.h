#pragma once

#include <cstddef>
#include <vector>

/// A queue of fixed capacity. Once it is full, each new entry replaces the oldest one. Allocates only when it
/// is constructed.
template <class T>
class Ring {
 public:
  explicit Ring(std::size_t capacity) : m_slots(capacity) {}

  std::size_t Size() const { return m_size; }
  bool IsFull() const { return m_size == m_slots.size(); }

  /// Entries count from the oldest one, 0.
  const T& operator[](std::size_t index) const { return m_slots[(m_oldest + index) % m_slots.size()]; }
  const T& Oldest() const { return (*this)[0]; }
  const T& Newest() const { return (*this)[m_size - 1]; }

  /// The slot that `Append` turns into the newest entry. Once the ring is full, it still holds the oldest
  /// entry.
  T& NextSlot() { return m_slots[(m_oldest + m_size) % m_slots.size()]; }
  void Append() {
    if (IsFull())
      m_oldest = (m_oldest + 1) % m_slots.size();
    else
      ++m_size;
  }

  void Clear() {
    for (T& slot : m_slots) slot = T();
    m_oldest = m_size = 0;
  }
  void Fill(const T& value) {
    for (T& slot : m_slots) slot = value;
    m_size = m_slots.size();
  }

 private:
  std::vector<T> m_slots;
  std::size_t m_oldest = 0, m_size = 0;
};
