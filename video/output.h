#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "video/av.h"

/// The format that an extension stands for: `extension`, or that of the file's name where it is empty. Throws
/// UsageError when it holds no video.
const AVOutputFormat& FormatOf(const std::string& fileName, const std::string& extension);

/// Files of one family keep a display matrix, tag H.265 `hvc1`, and have an index that may stand in front.
bool IsMovFamily(const AVOutputFormat& format);

/// True when pictures stand at the ticks of one rate.
bool HasFixedRate(const AVOutputFormat& format);

/// A file that is written beside the one it becomes. It takes that one's place when it is finished, and
/// vanishes when it is not. "-" is the standard output.
class Output {
 public:
  /// Throws WorkError when the folder cannot be written.
  Output(const std::string& fileName, const std::string& extension);
  ~Output();
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  const std::string& FileName() const { return m_fileName; }
  AVFormatContext& Format() const { return *m_pFormat; }
  AVStream& AddStream();

  /// All streams are there. Throws WorkError.
  void Begin();

  /// Takes the packet's content. Times are in `base`. Throws WorkError.
  void Write(AVPacket& packet, int stream, AVRational base);

  /// Throws WorkError.
  void Finish();

 private:
  std::string MakeTemporary();
  void KeepOrder(AVPacket& packet);

  std::string m_fileName, m_temporary;
  MuxerPtr m_pFormat;
  std::vector<std::int64_t> m_lastDts;  // by stream
};
