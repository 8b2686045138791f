#include "video/output.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

#include "host/options.h"
#include "host/stream.h"
#include "host/workerror.h"
#include "video/interruption.h"

const AVOutputFormat& FormatOf(const std::string& fileName, const std::string& extension) {
  const std::string dotted =
      extension.empty() ? std::filesystem::path(fileName).extension().string() : '.' + extension;
  if (dotted.empty())
    throw UsageError("OUTPUT needs an extension that names its format, such as .mp4, or --format: " +
                     StreamName(fileName, "standard output"));
  const std::string name = "file" + dotted;
  const AVOutputFormat* const format = av_guess_format(nullptr, name.c_str(), nullptr);
  if (!format)
    throw UsageError("no format is known by the extension " + dotted +
                     (fileName == kStandardStream ? "" : ": " + fileName) + "; --format chooses another");
  // Formats for sound name a codec for pictures too, which is for covers.
  const bool isSound = format->audio_codec != AV_CODEC_ID_NONE && format->video_codec == AV_CODEC_ID_PNG;
  if (format->video_codec == AV_CODEC_ID_NONE || isSound || (format->flags & AVFMT_NOFILE) != 0 ||
      av_match_ext(name.c_str(), "m4a,m4b"))
    throw UsageError(dotted + " files hold no video; --format chooses another: " +
                     StreamName(fileName, "standard output"));
  return *format;
}

bool IsMovFamily(const AVOutputFormat& format) {
  return av_match_name(format.name, "mov,mp4,ipod,3gp,3g2,psp,f4v") != 0;
}

bool HasFixedRate(const AVOutputFormat& format) {
  return (format.flags & AVFMT_VARIABLE_FPS) == 0 && !IsMovFamily(format) &&
         av_match_name(format.name, "asf") == 0;
}

Output::Output(const std::string& fileName, const std::string& extension)
    : m_fileName(StreamName(fileName, "standard output")) {
  AVFormatContext* format = nullptr;
  Check(avformat_alloc_output_context2(&format, &FormatOf(fileName, extension), nullptr, nullptr),
        "cannot write " + m_fileName);
  m_pFormat.reset(format);
  const std::string url = fileName == kStandardStream ? "pipe:1" : "file:" + MakeTemporary();
  format->url = Allocated(av_strdup(url.c_str()));
  Check(avio_open(&format->pb, format->url, AVIO_FLAG_WRITE), "cannot write " + m_fileName);
}

Output::~Output() {
  if (!m_temporary.empty()) unlink(m_temporary.c_str());
  if (m_owesTrailer) {
    // Some muxers, as GIF's, free their packets only here. The error keeps them from writing anything.
    m_pFormat->pb->error = AVERROR_EXIT;
    av_write_trailer(m_pFormat.get());
  }
  avio_closep(&m_pFormat->pb);
}

std::string Output::MakeTemporary() {
  const std::filesystem::path path(m_fileName);
  const std::string folder = path.has_parent_path() ? path.parent_path().string() + '/' : "./";
  for (int attempt = 0;; ++attempt) {
    const std::string name = folder + ".stabilize." + std::to_string(getpid()) + '.' +
                             std::to_string(attempt) + path.extension().string();
    // This mode and the umask give the file the rights of any new one. The library opens it again by name.
    const int file = open(name.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0666);
    if (file >= 0) {
      close(file);
      m_temporary = name;
      return m_temporary;
    }
    if (errno != EEXIST)
      throw WorkError("cannot write into the folder " + folder + ": " + SystemReason(errno));
  }
}

AVStream& Output::AddStream() { return *Allocated(avformat_new_stream(m_pFormat.get(), nullptr)); }

void Output::Begin() {
  Dictionary options;
  if (IsMovFamily(*m_pFormat->oformat)) {
    // Only in a file can the index move to the front at the end; a pipe gets fragments with an index each.
    options.Set("movflags", m_temporary.empty() ? "+frag_keyframe+delay_moov" : "+faststart");
    // The default, milliseconds, would round the length, and joined files begin where the one before ends.
    options.Set("movie_timescale", "90000");
  }
  Check(avformat_write_header(m_pFormat.get(), options.Entries()), "cannot write " + m_fileName);
  m_owesTrailer = true;
  m_lastDts.assign(m_pFormat->nb_streams, AV_NOPTS_VALUE);
}

void Output::KeepOrder(AVPacket& packet) {
  std::int64_t& last = m_lastDts[static_cast<std::size_t>(packet.stream_index)];
  if (packet.dts == AV_NOPTS_VALUE) packet.dts = packet.pts;
  if (packet.dts == AV_NOPTS_VALUE) packet.dts = last == AV_NOPTS_VALUE ? 0 : last + 1;
  if (last != AV_NOPTS_VALUE) {
    const bool mayRepeat = (m_pFormat->oformat->flags & AVFMT_TS_NONSTRICT) != 0;
    packet.dts = std::max(packet.dts, mayRepeat ? last : last + 1);
  }
  last = packet.dts;
  if (packet.pts != AV_NOPTS_VALUE) packet.pts = std::max(packet.pts, packet.dts);
}

void Output::Write(AVPacket& packet, int stream, AVRational base) {
  CheckInterruption();
  packet.stream_index = stream;
  packet.pos = -1;
  av_packet_rescale_ts(&packet, base, m_pFormat->streams[stream]->time_base);
  KeepOrder(packet);
  Check(av_interleaved_write_frame(m_pFormat.get(), &packet), "cannot write " + m_fileName);
}

void Output::Finish() {
  const std::string what = "cannot write " + m_fileName;
  m_owesTrailer = false;
  Check(av_write_trailer(m_pFormat.get()), what);
  if (m_pFormat->pb) Check(m_pFormat->pb->error, what);
  Check(avio_closep(&m_pFormat->pb), what);
  CheckInterruption();
  if (m_temporary.empty()) return;
  std::error_code error;
  std::filesystem::rename(m_temporary, m_fileName, error);
  if (error) throw WorkError(what + ": " + error.message());
  m_temporary.clear();
}
