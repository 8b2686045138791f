#include "gst/framestream.h"

#include <iterator>
#include <utility>

CFrameStream::CFrameStream(const GstVideoInfo& input, const GstVideoInfo& output, const StreamFacts& facts,
                           const precise::Settings& settings)
    : m_input(input),
      m_chromaIn(input, facts.format),
      m_chromaOut(output, precise::OutputFormat(facts.format, settings)),
      m_engine(facts.format, settings) {}

bool CFrameStream::Push(BufferPtr frame) {
  const CMappedFrame& mapped = m_held.emplace_back(m_input, frame.get()).frame;
  if (!mapped.IsMapped()) {
    m_held.pop_back();
    return false;
  }
  precise::ConstPicture planes = ConstPlanesOf(mapped.Frame());
  m_chromaIn.AddTo(planes);
  m_engine.Push(planes);
  return true;
}

void CFrameStream::Append(EventPtr event) { m_held.back().behind.push_back(std::move(event)); }

void CFrameStream::End() { m_engine.End(); }

precise::FrameReport CFrameStream::Deliver(const GstVideoFrame& out) {
  precise::Picture planes = PlanesOf(out);
  m_chromaOut.AddTo(planes);
  m_chromaIn.Split(m_held.front().frame.Frame());
  const precise::FrameReport report = m_engine.Deliver(planes);
  m_chromaOut.Merge(out);
  ReleaseOldest();
  return report;
}

precise::FrameReport CFrameStream::Skip() {
  const precise::FrameReport report = m_engine.Skip();
  ReleaseOldest();
  return report;
}

void CFrameStream::ReleaseOldest() {
  std::ranges::move(m_held.front().behind, std::back_inserter(m_due));
  m_held.pop_front();
}

std::vector<EventPtr> CFrameStream::TakeDueEvents() { return std::exchange(m_due, {}); }

std::vector<EventPtr> CFrameStream::TakeAllEvents() {
  while (!m_held.empty()) ReleaseOldest();
  return TakeDueEvents();
}
