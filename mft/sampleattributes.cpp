#include "mft/sampleattributes.h"

#include <mfapi.h>
#include <utility>

CVRMFSampleAttributes CVRMFSampleAttributes::Of(IMFSample* sample) {
  CVRMFSampleAttributes attributes;
  attributes.timeResult = sample->GetSampleTime(&attributes.time);
  attributes.durationResult = sample->GetSampleDuration(&attributes.duration);
  attributes.discontinuityResult =
      sample->GetUINT32(MFSampleExtension_Discontinuity, &attributes.discontinuity);
  attributes.cleanPointResult = sample->GetUINT32(MFSampleExtension_CleanPoint, &attributes.cleanPoint);
  return attributes;
}

void CVRMFSampleAttributes::ApplyTo(IMFSample* sample) const {
  if (SUCCEEDED(timeResult)) sample->SetSampleTime(time);
  if (SUCCEEDED(durationResult)) sample->SetSampleDuration(duration);
  if (SUCCEEDED(discontinuityResult)) sample->SetUINT32(MFSampleExtension_Discontinuity, discontinuity);
  if (SUCCEEDED(cleanPointResult)) sample->SetUINT32(MFSampleExtension_CleanPoint, cleanPoint);
}

void CSampleAttributesQueue::Reserve() {
  if (m_pFree) return;
  m_blocks.push_back(std::make_unique<Block>());
  for (Node& node : *m_blocks.back()) node.next = std::exchange(m_pFree, &node);
}

void CSampleAttributesQueue::Append(const CVRMFSampleAttributes& attributes) {
  Node* const node = std::exchange(m_pFree, m_pFree->next);
  *node = {attributes, nullptr};
  (m_pNewest ? m_pNewest->next : m_pOldest) = node;
  m_pNewest = node;
}

CVRMFSampleAttributes CSampleAttributesQueue::TakeOldest() {
  Node* const node = std::exchange(m_pOldest, m_pOldest->next);
  if (!m_pOldest) m_pNewest = nullptr;
  node->next = std::exchange(m_pFree, node);
  return node->attributes;
}

void CSampleAttributesQueue::Clear() {
  while (!IsEmpty()) TakeOldest();
}
