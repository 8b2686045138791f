#include "host/y4m.h"

#include <algorithm>
#include <cerrno>
#include <charconv>

#include "host/stream.h"
#include "host/workerror.h"

namespace {

constexpr std::string_view kMagic = "YUV4MPEG2", kFrameMagic = "FRAME";
constexpr std::size_t kLongestLine = 1024;
constexpr std::int32_t kLeastHeightOfBt709 = 720;

struct Sampling {
  std::string_view tag;
  int planes;
  int shiftX, shiftY;
  double siteX, siteY;
};

// In PAL DV the samples of one chroma plane lie a row below those of the other. Both planes get the site of
// the upper one.
constexpr Sampling kSamplings[] = {
    {"420", 3, 1, 1, 0.5, 0.5},  {"420jpeg", 3, 1, 1, 0.5, 0.5}, {"420mpeg2", 3, 1, 1, 0, 0.5},
    {"420paldv", 3, 1, 1, 0, 0}, {"422", 3, 1, 0, 0, 0},         {"444", 3, 0, 0, 0, 0},
    {"444alpha", 4, 0, 0, 0, 0}, {"mono", 1, 0, 0, 0, 0},
};

// These names are followed by the bits per sample, as in 420p10. They do not tell the chroma site; the table
// has the most common one.
constexpr Sampling kDeepSamplings[] = {
    {"420p", 3, 1, 1, 0, 0.5}, {"422p", 3, 1, 0, 0, 0}, {"444p", 3, 0, 0, 0, 0}, {"mono", 1, 0, 0, 0, 0}};
constexpr int kDeepBits[] = {9, 10, 12, 14, 16};

[[noreturn]] void RefuseTag(std::string_view tag, const std::string& reason) {
  throw WorkError("the input's tag " + std::string(tag) + ": " + reason);
}

std::int32_t ParseSide(std::string_view tag) {
  std::int32_t side = 0;
  const auto [rest, error] = std::from_chars(tag.data() + 1, tag.data() + tag.size(), side);
  if (error != std::errc() || rest != tag.data() + tag.size() || side < 1 || side > precise::kLargestSide)
    RefuseTag(tag, "a side has 1 to " + std::to_string(precise::kLargestSide) + " pixels");
  return side;
}

struct Ratio {
  std::int32_t numerator = 0, denominator = 0;
};

/// Parses the ratio after the tag's letter. 0:0 means unknown.
Ratio ParseRatio(std::string_view tag) {
  Ratio ratio;
  const char* const end = tag.data() + tag.size();
  const auto colon = std::from_chars(tag.data() + 1, end, ratio.numerator);
  bool isRatio = colon.ec == std::errc() && colon.ptr != end && *colon.ptr == ':';
  if (isRatio) {
    const auto last = std::from_chars(colon.ptr + 1, end, ratio.denominator);
    isRatio = last.ec == std::errc() && last.ptr == end;
  }
  const bool isUnknown = ratio.numerator == 0 && ratio.denominator == 0;
  if (!isRatio || (!isUnknown && (ratio.numerator <= 0 || ratio.denominator <= 0)))
    RefuseTag(tag, "two numbers above 0 with a colon between them are expected");
  return ratio;
}

/// Looks up the name of a sampling, which is a C tag without its letter; false for an unknown name.
bool FindSampling(std::string_view name, Sampling& sampling, int& bits) {
  const auto take = [&](const Sampling& found, int foundBits) {
    sampling = found;
    bits = foundBits;
    return true;
  };
  for (const Sampling& found : kSamplings)
    if (found.tag == name) return take(found, 8);
  for (const Sampling& found : kDeepSamplings)
    for (const int deep : kDeepBits)
      if (name == std::string(found.tag) + std::to_string(deep)) return take(found, deep);
  return false;
}

void SetSampling(std::string_view tag, precise::PictureFormat& format) {
  Sampling found = {};
  if (!FindSampling(tag.substr(1), found, format.bitsPerSample))
    RefuseTag(
        tag,
        "this sampling is not supported; 420, 422, 444 and mono of 8 to 16 bits are, and 444alpha of 8; "
        "convert it with ffmpeg -i INPUT -pix_fmt yuv420p -f yuv4mpegpipe -");
  format.planes = found.planes;
  format.chromaShiftX = found.shiftX;
  format.chromaShiftY = found.shiftY;
  format.chromaSiteX = found.siteX;
  format.chromaSiteY = found.siteY;
}

void SetAspect(std::string_view tag, precise::PictureFormat& format) {
  const Ratio ratio = ParseRatio(tag);
  format.pixelAspect = ratio.denominator == 0 ? 1 : static_cast<double>(ratio.numerator) / ratio.denominator;
  if (format.pixelAspect > precise::kLargestPixelAspect ||
      format.pixelAspect * precise::kLargestPixelAspect < 1)
    RefuseTag(tag, "the pixel aspect must be within 1:16 and 16:1; set it with ffmpeg -vf setsar=1");
}

void CheckInterlacing(std::string_view tag) {
  if (tag == "It" || tag == "Ib" || tag == "Im")
    RefuseTag(tag, "the input is interlaced; deinterlace it first, for example with ffmpeg -vf bwdif");
  if (tag != "Ip" && tag != "I?") RefuseTag(tag, "Ip or I? is expected");
}

void ReadTag(std::string_view tag, StreamFacts& facts) {
  const char kind = tag.empty() ? ' ' : tag[0];
  if (kind == 'W') facts.format.width = ParseSide(tag);
  if (kind == 'H') facts.format.height = ParseSide(tag);
  if (kind == 'A') SetAspect(tag, facts.format);
  if (kind == 'C') SetSampling(tag, facts.format);
  if (kind == 'I') CheckInterlacing(tag);
  if (kind == 'F') {
    const Ratio rate = ParseRatio(tag);
    facts.rateNumerator = rate.numerator;
    facts.rateDenominator = rate.denominator;
  }
  if (tag == "XCOLORRANGE=FULL") facts.isFullRange = true;
}

/// Calls `take` with each tag of a line.
template <class Function>
void ForEachTag(std::string_view line, Function take) {
  while (!line.empty()) {
    const std::size_t length = std::min(line.find(' '), line.size());
    take(line.substr(0, length));
    line.remove_prefix(std::min(length + 1, line.size()));
  }
}

StreamFacts ParseHead(std::string_view head) {
  StreamFacts facts;
  SetSampling("C420", facts.format);
  ForEachTag(head, [&](std::string_view tag) { ReadTag(tag, facts); });
  if (facts.format.width == 0 || facts.format.height == 0)
    throw WorkError(std::string("the input's head lacks the frame's ") +
                    (facts.format.width == 0 ? "width (W)" : "height (H)"));
  // The format does not tell the matrix, so the height decides.
  if (facts.format.height >= kLeastHeightOfBt709) facts.matrix = ColourMatrix::Bt709;
  return facts;
}

std::string InputFailure(std::FILE* stream, const std::string& what, const std::string& atEnd) {
  return std::ferror(stream) ? "cannot read " + what + " of the input: " + SystemReason(errno) : atEnd;
}

enum class LineStart { Magic, Other, EndOfStream };

/// Reads the word `magic`, with which the line should begin. `next` becomes the blank or line end after it.
LineStart ReadMagic(std::FILE* stream, std::string_view magic, char& next) {
  std::uint8_t bytes[16] = {};
  const std::size_t count = ReadBytes(stream, {bytes, magic.size() + 1});
  if (count == 0) return LineStart::EndOfStream;
  next = static_cast<char>(bytes[magic.size()]);
  const bool isMagic = std::equal(magic.begin(), magic.end(), bytes) && (next == ' ' || next == '\n');
  return isMagic ? LineStart::Magic : LineStart::Other;
}

/// Reads the rest of a line without its end. `next` is the character from `ReadMagic`. False when the line
/// has no end or is too long.
bool ReadLine(std::FILE* stream, char next, std::string& line) {
  line.clear();
  if (next == '\n') return true;
  std::uint8_t byte = 0;
  while (line.size() < kLongestLine && ReadBytes(stream, {&byte, 1}) == 1) {
    if (byte == '\n') return true;
    line += static_cast<char>(byte);
  }
  return false;
}

}  // namespace

std::size_t FrameBytes(const precise::PictureFormat& format) {
  std::size_t samples = 0;
  for (int plane = 0; plane < format.planes; ++plane)
    samples += static_cast<std::size_t>(format.PlaneWidth(plane)) *
               static_cast<std::size_t>(format.PlaneHeight(plane));
  return samples * static_cast<std::size_t>(format.BytesPerSample());
}

precise::Picture PlanesOf(const precise::PictureFormat& format, std::uint8_t* samples) {
  precise::Picture picture;
  for (int plane = 0; plane < format.planes; ++plane) {
    const std::ptrdiff_t stride = std::ptrdiff_t{format.PlaneWidth(plane)} * format.BytesPerSample();
    picture[static_cast<std::size_t>(plane)] = {samples, stride};
    samples += stride * format.PlaneHeight(plane);
  }
  return picture;
}

// The samples are not initialised: the system gives memory only to the buffers that frames fill.
Y4mFrame::Y4mFrame(std::size_t frameBytes)
    : bytes(frameBytes), samples(std::make_unique_for_overwrite<std::uint8_t[]>(frameBytes)) {
  parameters.reserve(kLongestLine);
}

Y4mReader::Y4mReader(std::FILE* stream) : m_pStream(stream) {
  const std::string hint = " (raw bgr24 frames need --size WxH)";
  DisableBuffering(stream);
  char next = 0;
  const LineStart start = ReadMagic(stream, kMagic, next);
  if (start == LineStart::EndOfStream)
    throw WorkError(InputFailure(stream, "the head", "the input is empty; YUV4MPEG2 is expected" + hint));
  if (start == LineStart::Other) throw WorkError("the input is not YUV4MPEG2" + hint);
  if (!ReadLine(stream, next, m_head))
    throw WorkError(InputFailure(
        stream, "the head", "the input's head has no end within " + std::to_string(kLongestLine) + " bytes"));
  m_facts = ParseHead(m_head);
}

bool Y4mReader::Read(Y4mFrame& frame) {
  // Makes its text only on failure, because that allocates.
  const auto fail = [this](const char* problem) {
    const std::string name = "frame " + std::to_string(m_frames + 1);
    throw WorkError(InputFailure(m_pStream, name, problem + name));
  };
  char next = 0;
  const LineStart start = ReadMagic(m_pStream, kFrameMagic, next);
  if (start == LineStart::EndOfStream && !std::ferror(m_pStream)) return false;
  if (start == LineStart::Other && !std::feof(m_pStream))
    fail("the input has something other than FRAME before ");
  if (start != LineStart::Magic) fail("the input ends inside ");
  if (!ReadLine(m_pStream, next, frame.parameters)) fail("the input has no end of the line before ");
  if (ReadBytes(m_pStream, {frame.samples.get(), frame.bytes}) < frame.bytes) fail("the input ends inside ");
  ++m_frames;
  return true;
}

Y4mWriter::Y4mWriter(std::FILE* stream, std::string_view head, const precise::PictureFormat& format)
    : m_pStream(stream) {
  DisableBuffering(stream);
  m_frameLine.reserve(kFrameMagic.size() + kLongestLine + 2);
  std::string line(kMagic);
  ForEachTag(head, [&](std::string_view tag) {
    line += ' ';
    if (tag.starts_with('W'))
      line += 'W' + std::to_string(format.width);
    else if (tag.starts_with('H'))
      line += 'H' + std::to_string(format.height);
    else
      line += tag;
  });
  line += '\n';
  if (!WriteBytes(stream, std::as_bytes(std::span(line))))
    throw WorkError("cannot write the head of the output: " + SystemReason(errno));
}

void Y4mWriter::Write(std::string_view parameters, std::span<const std::uint8_t> samples) {
  m_frameLine = kFrameMagic;
  if (!parameters.empty()) (m_frameLine += ' ') += parameters;
  m_frameLine += '\n';
  if (!WriteBytes(m_pStream, std::as_bytes(std::span(m_frameLine))) ||
      !WriteBytes(m_pStream, std::as_bytes(samples)))
    throw WorkError("cannot write frame " + std::to_string(m_frames + 1) +
                    " of the output: " + SystemReason(errno));
  ++m_frames;
}
