#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>

#include "host/options.h"
#include "video/av.h"

class Input;

/// The part of a clip between --start and --end, or all of it. Times count from the clip's start and are
/// rounded to milliseconds.
///
/// The pictures of the range depend on others before it (lead-in) and after it (lead-out). These are
/// stabilized, too, but not written.
class Range {
 public:
  Range(const Options& options, const Input& input);

  /// Reads packets up to the range, drops those of pictures that neither the range nor a lead-in of `leadIn`
  /// pictures needs, and puts the others back.
  void Skip(Input& input, std::size_t leadIn);

  /// True for pictures that come before the lead-in.
  bool IsBeforeLeadIn(std::int64_t pts) const { return pts < m_leadInStart; }

  /// Takes pictures in the order of their times, and sets AV_FRAME_FLAG_DISCARD on those outside the range.
  /// False when the lead-in turned out too short, because Skip dropped packets that the decoder needed.
  bool Place(AVFrame& picture);

  /// True when `time`, in the picture's time base, is the range's end plus `milliseconds`, or later.
  bool IsBehind(std::int64_t time, std::int64_t milliseconds = 0) const;

  /// True once the range's first picture is known.
  bool HasBegun() const { return m_origin.has_value(); }

  /// The time that the output's times count from: that of the range's first picture; without --start 0.
  std::int64_t Origin(AVRational base) const;

  /// True for packets that end before the range.
  bool EndsBefore(const AVPacket& packet, AVRational base) const;

  /// For packets of other streams, once the range has begun: makes times count from the origin, and cuts
  /// subtitles to the range. False when the packet lies outside; sound must lie in the range as a whole.
  bool Cut(AVPacket& packet, const AVStream& stream) const;

  /// Cuts a chapter to the range, and makes its times count from --start. False when it lies outside.
  bool Cut(std::int64_t& start, std::int64_t& end, AVRational base) const;

  std::int64_t ExpectedPictures() const;

 private:
  std::int64_t FromMilliseconds(std::int64_t milliseconds, AVRational base) const;
  std::int64_t ToMilliseconds(std::int64_t time, AVRational base) const;
  void DropUnneeded(std::deque<PacketPtr>& packets);
  bool IsBefore(std::int64_t pts) const;

  const Input& m_input;
  std::optional<std::int64_t> m_start, m_end;  // milliseconds
  std::optional<std::int64_t> m_origin;        // in the picture's time base
  std::int64_t m_leadInStart = INT64_MIN;      // in the picture's time base
  std::size_t m_leadIn = 0, m_leadInSeen = 0;
  bool m_hasSkipped = false;
};
