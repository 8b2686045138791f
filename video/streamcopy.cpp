#include "video/streamcopy.h"

#include <algorithm>

#include "video/input.h"
#include "video/output.h"
#include "video/range.h"

namespace {

/// Tags that describe the input file itself, not its content.
constexpr const char* kFileTags[] = {"encoder", "major_brand", "minor_version", "compatible_brands",
                                     "duration"};
constexpr const char* kCodingTags[] = {"encoder",
                                       "vendor_id",
                                       "BPS",
                                       "NUMBER_OF_FRAMES",
                                       "NUMBER_OF_BYTES",
                                       "DURATION",
                                       "_STATISTICS_WRITING_APP",
                                       "_STATISTICS_WRITING_DATE_UTC",
                                       "_STATISTICS_TAGS"};

void CopyDictionary(const AVDictionary* from, AVDictionary** to) { av_dict_copy(to, from, 0); }

}  // namespace

int CopyParameters(const AVStream& from, AVStream& to, const AVOutputFormat* format) {
  const int result = avcodec_parameters_copy(to.codecpar, from.codecpar);
  const AVCodecParameters& codec = *from.codecpar;
  unsigned int tag = 0;
  const bool knowsTag = format && format->codec_tag &&
                        (av_codec_get_id(format->codec_tag, codec.codec_tag) == codec.codec_id ||
                         av_codec_get_tag2(format->codec_tag, codec.codec_id, &tag) == 0);
  if (!knowsTag) to.codecpar->codec_tag = 0;
  to.time_base = from.time_base;
  to.avg_frame_rate = from.avg_frame_rate;
  to.sample_aspect_ratio = from.sample_aspect_ratio;
  for (int i = 0; i < from.nb_side_data; ++i) {
    const AVPacketSideData& data = from.side_data[i];
    if (std::uint8_t* const copy = av_stream_new_side_data(&to, data.type, data.size))
      std::copy_n(data.data, data.size, copy);
  }
  return result;
}

void CopyTags(const AVStream& from, AVStream& to, bool isEncodedAnew) {
  CopyDictionary(from.metadata, &to.metadata);
  to.disposition = from.disposition;
  if (!isEncodedAnew) return;
  for (const char* const tag : kCodingTags) {
    // Statistics, whose names are in capitals, may have a language appended, as in BPS-eng.
    while (const AVDictionaryEntry* const entry =
               av_dict_get(to.metadata, tag, nullptr, tag[0] < 'a' ? AV_DICT_IGNORE_SUFFIX : 0))
      av_dict_set(&to.metadata, std::string(entry->key).c_str(), nullptr, 0);
  }
}

bool HoldsChapters(const AVOutputFormat& format) {
  return IsMovFamily(format) || av_match_name(format.name, "matroska,webm,asf,nut") != 0;
}

void CopyFileTags(const Input& input, const Range& range, Output& output) {
  const AVFormatContext& from = input.Format();
  AVFormatContext& to = output.Format();
  CopyDictionary(from.metadata, &to.metadata);
  for (const char* const tag : kFileTags) av_dict_set(&to.metadata, tag, nullptr, 0);
  if (from.nb_chapters == 0 || !HoldsChapters(*to.oformat)) return;
  to.chapters = static_cast<AVChapter**>(Allocated(av_calloc(from.nb_chapters, sizeof(AVChapter*))));
  for (unsigned i = 0; i < from.nb_chapters; ++i) {
    const AVChapter& chapter = *from.chapters[i];
    const std::int64_t origin = input.OriginIn(chapter.time_base);
    std::int64_t start = chapter.start - origin, end = chapter.end - origin;
    if (!range.Cut(start, end, chapter.time_base)) continue;
    auto* const copy = static_cast<AVChapter*>(Allocated(av_mallocz(sizeof(AVChapter))));
    copy->id = chapter.id;
    copy->time_base = chapter.time_base;
    copy->start = start;
    copy->end = end;
    CopyDictionary(chapter.metadata, &copy->metadata);
    to.chapters[to.nb_chapters++] = copy;
  }
}
