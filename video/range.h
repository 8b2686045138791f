#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>

#include "host/options.h"
#include "video/av.h"

class Input;

/// The part of a clip between --start and --end, or all of it. A time means the nearest millisecond, counted
/// from the clip's start.
///
/// A picture of the range depends on the pictures around it. Those are read and not written: they are the
/// lead-in and the lead-out.
class Range {
 public:
  Range(const Options& options, const Input& input);

  /// Drops what is read of the pictures before the range, as far as a decoder does not need it to give
  /// `leadIn` pictures before the first of the range.
  void Skip(Input& input, std::size_t leadIn);

  /// True for pictures that come before the lead-in.
  bool IsBeforeLeadIn(std::int64_t pts) const { return pts < m_leadInStart; }

  /// Places a picture, which comes in the order of time: those outside of the range get
  /// AV_FRAME_FLAG_DISCARD. False when the pictures skipped would have been needed.
  bool Place(AVFrame& picture);

  /// True for pictures and packets of the picture that come behind the range by so much or more.
  bool IsBehind(std::int64_t time, std::int64_t milliseconds = 0) const;

  /// True once the range's first picture is known, and what the output's times count from.
  bool HasBegun() const { return m_origin.has_value(); }
  std::int64_t Origin(AVRational base) const;

  /// True for packets that end before the range.
  bool EndsBefore(const AVPacket& packet, AVRational base) const;

  /// Cuts a packet beside the picture down to what lies in the range that has begun, and counts its times
  /// from the origin. Sound is not cut. False when nothing remains.
  bool Cut(AVPacket& packet, const AVStream& stream) const;

  /// The same for a chapter's times.
  bool Cut(std::int64_t& start, std::int64_t& end, AVRational base) const;

  std::int64_t ExpectedPictures() const;

 private:
  std::int64_t FromMilliseconds(std::int64_t milliseconds, AVRational base) const;
  std::int64_t ToMilliseconds(std::int64_t time, AVRational base) const;
  void DropUnneeded(std::deque<PacketPtr>& packets);
  bool IsBefore(std::int64_t pts) const;

  const Input& m_input;
  std::optional<std::int64_t> m_start, m_end;  // milliseconds
  std::optional<std::int64_t> m_origin;        // in the picture's ticks
  std::int64_t m_leadInStart = INT64_MIN;      // in the picture's ticks
  std::size_t m_leadIn = 0, m_leadInSeen = 0;
  bool m_hasSkipped = false;
};
