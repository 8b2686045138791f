#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>

#include "video/av.h"

/// The input file: its streams and their packets.
class Input {
 public:
  /// "-" is the standard input. Other files that this one refers to, as a playlist does, are opened; network
  /// addresses are not. Throws WorkError when the file cannot be read or has no video stream.
  explicit Input(const std::string& fileName);

  const std::string& FileName() const { return m_fileName; }
  AVFormatContext& Format() const { return *m_pFormat; }
  AVStream& Picture() const { return *m_pPicture; }

  /// Reads the next packet of any stream; false at the end. Its times count from the clip's origin.
  bool Read(AVPacket& packet);

  /// False for a pipe.
  bool IsSeekable() const { return m_pFormat->pb && (m_pFormat->pb->seekable & AVIO_SEEKABLE_NORMAL) != 0; }

  /// Makes Read return these packets next.
  void PutBack(std::deque<PacketPtr> packets);

  /// What Read subtracts from the file's times: the start of a broadcast stream, whose clock starts anywhere;
  /// otherwise 0.
  std::int64_t OriginIn(AVRational base) const;

  /// When the clip starts, in times as Read gives them.
  std::int64_t StartIn(AVRational base) const;

  /// Frames a second; 0/1: unknown.
  AVRational Rate() const;
  bool HasConstantRate() const;

  /// The lowest rate that represents all times exactly; 0/1 when it is unknown or too high for pictures.
  AVRational NominalRate() const;

  /// 0: unknown.
  std::int64_t ExpectedFrames() const;

  /// How far reading has come, as a fraction of the length in the file's header. `pictureEnd`: where the last
  /// picture ends, in seconds. Nothing when the header tells no length.
  std::optional<double> FractionRead(double pictureEnd) const;

 private:
  bool HasBroadcastClock() const;
  void FollowClock(const AVPacket& packet, const AVStream& stream);

  std::string m_fileName;
  InputPtr m_pFormat;
  AVStream* m_pPicture = nullptr;
  std::deque<PacketPtr> m_ahead;
  double m_end = 0;                    // of the latest packet, in seconds
  std::map<int, std::int64_t> m_next;  // by stream, the end of its last packet; AV_TIME_BASE
  std::int64_t m_jumped = 0;           // sum of the clock's jumps so far; AV_TIME_BASE
};
