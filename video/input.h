#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>

#include "video/av.h"

/// A file that is read: its streams and their packets.
class Input {
 public:
  /// Opens files and pipes only, whatever the file refers to; "-" is the standard input. Throws WorkError
  /// when there is no picture.
  explicit Input(const std::string& fileName);

  const std::string& FileName() const { return m_fileName; }
  AVFormatContext& Format() const { return *m_pFormat; }
  AVStream& Picture() const { return *m_pPicture; }

  /// The next packet of any stream; false at the end. Its times count from the clip's origin.
  bool Read(AVPacket& packet);

  /// False for a pipe.
  bool IsSeekable() const { return m_pFormat->pb && (m_pFormat->pb->seekable & AVIO_SEEKABLE_NORMAL) != 0; }

  /// These packets are read next.
  void PutBack(std::deque<PacketPtr> packets);

  /// What is subtracted from the stream's times: the start of a broadcast, whose clock starts anywhere.
  std::int64_t OriginIn(AVRational base) const;

  /// When the clip starts, in the times of packets.
  std::int64_t StartIn(AVRational base) const;

  /// Frames a second; 0/1: unknown.
  AVRational Rate() const;
  bool HasConstantRate() const;

  /// The rate of which all times are multiples, where it is one that pictures may have; otherwise 0/1.
  AVRational NominalRate() const;

  std::int64_t ExpectedFrames() const;

  /// The part of what the head announces that packets read so far reach, counted by a picture that ends at
  /// `pictureEnd` seconds; nothing where the head tells no length.
  std::optional<double> PartReached(double pictureEnd) const;

 private:
  bool HasAnyClock() const;
  void FollowClock(const AVPacket& packet, const AVStream& stream);

  std::string m_fileName;
  InputPtr m_pFormat;
  AVStream* m_pPicture = nullptr;
  std::deque<PacketPtr> m_ahead;
  double m_end = 0;                    // of all packets, in seconds
  std::map<int, std::int64_t> m_next;  // by stream, the time after its last packet; AV_TIME_BASE
  std::int64_t m_jumped = 0;           // how far the clock went in jumps; AV_TIME_BASE
};
