#pragma once

#include <windows.h>

#include <array>
#include <memory>
#include <mfobjects.h>
#include <vector>

/// The timing of one input sample, with the result of reading each value.
struct CVRMFSampleAttributes {
  HRESULT timeResult = E_FAIL, durationResult = E_FAIL, discontinuityResult = E_FAIL,
          cleanPointResult = E_FAIL;
  LONGLONG time = 0, duration = 0;  ///< 100-nanosecond units
  UINT32 discontinuity = 0, cleanPoint = 0;

  static CVRMFSampleAttributes Of(IMFSample* sample);

  /// Sets the values that could be read on `sample`.
  void ApplyTo(IMFSample* sample) const;
};

/// A queue, first in, first out. Nodes are allocated ten at a time and reused.
class CSampleAttributesQueue {
 public:
  CSampleAttributesQueue() = default;
  CSampleAttributesQueue(const CSampleAttributesQueue&) = delete;
  CSampleAttributesQueue& operator=(const CSampleAttributesQueue&) = delete;

  bool IsEmpty() const { return m_pOldest == nullptr; }
  /// Allocates memory for one more entry. Throws std::bad_alloc.
  void Reserve();
  /// Does not allocate, so `Reserve` must be called before.
  void Append(const CVRMFSampleAttributes& attributes);
  /// Removes and returns the oldest entry. The queue must not be empty.
  CVRMFSampleAttributes TakeOldest();
  void Clear();

 private:
  struct Node {
    CVRMFSampleAttributes attributes;
    Node* next = nullptr;
  };
  using Block = std::array<Node, 10>;

  std::vector<std::unique_ptr<Block>> m_blocks;
  Node* m_pFree = nullptr;
  Node* m_pOldest = nullptr;
  Node* m_pNewest = nullptr;
};
