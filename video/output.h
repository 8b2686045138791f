#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "video/av.h"

/// The format that `extension` names or, where it is empty, the file name's own extension. Throws UsageError
/// when there is no such format, and when it holds no video.
const AVOutputFormat& FormatOf(const std::string& fileName, const std::string& extension);

/// True for MP4, MOV and their relatives. They keep a display matrix, tag H.265 as `hvc1`, and may have their
/// index in front.
bool IsMovFamily(const AVOutputFormat& format);

/// True for containers whose pictures have one fixed rate.
bool HasFixedRate(const AVOutputFormat& format);

/// The output file. It is written under a temporary name in the same folder and gets its own name when it is
/// finished; otherwise it is removed. "-" is the standard output.
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

  /// Writes the header, after all streams are added. Throws WorkError.
  void Begin();

  /// Takes the packet's content. Times are in `base`. Throws WorkError.
  void Write(AVPacket& packet, int stream, AVRational base);

  /// Writes the trailer and gives the file its name. Throws WorkError.
  void Finish();

 private:
  std::string MakeTemporary();
  void KeepOrder(AVPacket& packet);

  std::string m_fileName, m_temporary;
  MuxerPtr m_pFormat;
  std::vector<std::int64_t> m_lastDts;  // by stream
  bool m_owesTrailer = false;           // the header is written
};
