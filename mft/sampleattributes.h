#pragma once

#include <windows.h>

#include <array>
#include <memory>
#include <mfobjects.h>
#include <vector>

/// One input sample's timing. Each field has the result of reading it.
struct CVRMFSampleAttributes {
  HRESULT timeResult = E_FAIL, durationResult = E_FAIL, discontinuityResult = E_FAIL,
          cleanPointResult = E_FAIL;
  LONGLONG time = 0, duration = 0;  ///< 100-nanosecond units
  UINT32 discontinuity = 0, cleanPoint = 0;

  static CVRMFSampleAttributes Of(IMFSample* sample);

  /// Stamps a sample with the fields that could be read.
  void ApplyTo(IMFSample* sample) const;
};

/// First in, first out. Nodes are allocated ten at a time and used again.
class CSampleAttributesQueue {
 public:
  CSampleAttributesQueue() = default;
  CSampleAttributesQueue(const CSampleAttributesQueue&) = delete;
  CSampleAttributesQueue& operator=(const CSampleAttributesQueue&) = delete;

  bool IsEmpty() const { return m_pOldest == nullptr; }
  /// Makes room for one more entry. Throws std::bad_alloc.
  void Reserve();
  /// Fills the room that `Reserve` made.
  void Append(const CVRMFSampleAttributes& attributes);
  /// Removes and returns the oldest entry of a queue that is not empty.
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
