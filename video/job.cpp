#include "video/job.h"

#include <chrono>
#include <cmath>
#include <deque>
#include <filesystem>
#include <optional>

#include "host/platform.h"
#include "host/progress.h"
#include "host/workerror.h"
#include "video/decoder.h"
#include "video/memory.h"
#include "video/output.h"
#include "video/pictureplan.h"
#include "video/range.h"
#include "video/sidestreams.h"
#include "video/streamcopy.h"

namespace {

namespace fs = std::filesystem;

bool IsSameFile(const fs::path& one, const fs::path& other) {
  std::error_code error;
  return fs::equivalent(one, other, error) ||
         fs::weakly_canonical(one, error) == fs::weakly_canonical(other, error);
}

void CheckTarget(const std::string& name, const char* kind, bool overwrite) {
  std::error_code ignored;
  if (!fs::exists(name, ignored)) return;
  if (!fs::is_regular_file(name, ignored)) throw WorkError("exists and is not a file: " + name);
  if (!overwrite) throw WorkError(std::string(kind) + " exists already, --force overwrites it: " + name);
}

void CheckFiles(const Options& options, const std::string& input, const std::string& output) {
  FormatOf(output, options.format);
  if (output == kStandardStream) {
    if (IsTerminal(stdout))
      throw WorkError("the standard output is a terminal; redirect it to a file or a pipe");
  } else {
    if (IsSameFile(input, output)) throw WorkError("OUTPUT is the same file as INPUT: " + output);
    CheckTarget(output, "OUTPUT", options.overwrite);
  }
  if (options.motionFile.empty()) return;
  if (IsSameFile(options.motionFile, input) || IsSameFile(options.motionFile, output))
    throw WorkError("the motion file is the same file as INPUT or OUTPUT: " + options.motionFile);
  CheckTarget(options.motionFile, "the motion file", options.overwrite);
}

std::string Megabytes(std::int64_t bytes) { return std::to_string((bytes + 999'999) / 1'000'000) + " MB"; }

std::string Tenths(double value) {
  const auto tenths = std::llround(value * 10);
  return std::to_string(tenths / 10) + '.' + std::to_string(tenths % 10);
}

/// Removes the motion file again unless Keep is called.
class MotionFileGuard {
 public:
  explicit MotionFileGuard(std::string name) : m_name(std::move(name)) {}
  ~MotionFileGuard() {
    std::error_code ignored;
    if (!m_name.empty()) fs::remove(m_name, ignored);
  }
  MotionFileGuard(const MotionFileGuard&) = delete;
  MotionFileGuard& operator=(const MotionFileGuard&) = delete;
  void Keep() { m_name.clear(); }

 private:
  std::string m_name;
};

/// Gives each picture a time later than the one before, even where the file gives no time or repeats one.
class PictureClock {
 public:
  explicit PictureClock(const Input& input) : m_base(input.Picture().time_base) {
    const AVRational rate = input.Rate();
    m_usual = rate.num > 0 ? std::max<std::int64_t>(1, av_rescale_q(1, av_inv_q(rate), m_base)) : 1;
  }

  void Stamp(AVFrame& frame) {
    const std::int64_t duration = frame.pkt_duration > 0 ? frame.pkt_duration : m_usual;
    std::int64_t pts = frame.best_effort_timestamp;
    if (pts == AV_NOPTS_VALUE) pts = m_last == AV_NOPTS_VALUE ? 0 : m_last + m_lastDuration;
    if (m_last != AV_NOPTS_VALUE) pts = std::max(pts, m_last + 1);
    frame.pts = m_last = pts;
    m_lastDuration = duration;
  }

  /// Where the last picture ends, in seconds.
  double End() const { return m_last == AV_NOPTS_VALUE ? 0 : ToSeconds(m_last + m_lastDuration, m_base); }

 private:
  AVRational m_base;
  std::int64_t m_usual, m_last = AV_NOPTS_VALUE, m_lastDuration = 0;
};

/// The stages that pictures go through; they can be made once the first picture is known.
struct PictureStages {
  PictureStages(const PicturePlan& plan, const Encoding& encoding, Output& output)
      : prepare(plan.prepared, plan.facts.timeBase),
        pStabilizer(MakePictureStabilizer(plan.options, plan.stream, plan.prepared.format)),
        finish(plan.finished, plan.facts.timeBase),
        encoder(*plan.encoder, plan.finished.format, encoding, plan.facts, *output.Format().oformat) {}

  FrameFilter prepare;
  std::unique_ptr<PictureStabilizer> pStabilizer;
  FrameFilter finish;
  PictureEncoder encoder;
};

/// Thrown when decoding began at a key frame before the range and yielded too short a lead-in.
struct LeadInTooShort {};

class Job {
 public:
  /// `readsAll`: decode from the start of the file instead of the lead-in.
  Job(const Options& options, const std::string& inputName, const std::string& outputName, const Notes& notes,
      std::FILE* terminal, bool readsAll)
      : m_options(options),
        m_notes(notes),
        m_pTerminal(terminal),
        m_input(inputName),
        m_output(outputName, options.format),
        m_decoder(m_input.Picture(), inputName, 0),
        m_clock(m_input),
        m_range(options, m_input),
        m_readsAll(readsAll) {}

  /// Throws LeadInTooShort, but never with `readsAll`.
  void Run();

 private:
  FramePtr FindFirstFrame();
  void SetUp(const AVFrame& first);
  void Read();
  void CheckMemory(const StabilizerFacts& facts) const;
  void TakePacket(AVPacket& packet);
  void TakeSide(AVPacket& packet);
  void DecodePicture(const AVPacket* packet);
  void TakePicture(FramePtr frame);
  FramePtr TakeOriginal(const AVFrame& stabilized);
  void Stabilize();
  void Encode();
  void WritePackets();
  void End();
  void CheckLength() const;
  void Close();

  const Options& m_options;
  const Notes& m_notes;
  std::FILE* m_pTerminal;
  std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
  Input m_input;
  Output m_output;
  Decoder m_decoder;
  PictureClock m_clock;
  Range m_range;
  bool m_readsAll;
  bool m_isComplete = false;  // the whole range is stabilized
  std::optional<PictureStages> m_stages;
  std::optional<SideStreams> m_sides;
  std::vector<std::string> m_leftOut;
  int m_pictureIndex = 0;
  int m_width = 0, m_height = 0;  // of the first picture
  bool m_changesSize = false;
  std::deque<FramePtr> m_originals;  // for --compare: the frames inside the stabilizer
  std::deque<PacketPtr> m_waiting;   // packets that wait for the range's first picture
  std::optional<Progress> m_progress;
  std::int64_t m_frames = 0;
};

/// Uses a decoder of its own, and puts back all packets that it read.
FramePtr Job::FindFirstFrame() {
  Decoder decoder(m_input.Picture(), m_input.FileName(), 1);
  FramePtr frame = NewFrame();
  std::deque<PacketPtr> ahead;
  for (bool isEnd = false; !isEnd;) {
    PacketPtr packet = NewPacket();
    isEnd = !m_input.Read(*packet);
    const bool isPicture = packet->stream_index == m_input.Picture().index;
    if (isEnd || isPicture) decoder.Send(isEnd ? nullptr : packet.get());
    if (!isEnd) ahead.push_back(std::move(packet));
    if ((isEnd || isPicture) && decoder.Receive(*frame)) {
      m_input.PutBack(std::move(ahead));
      return frame;
    }
  }
  throw WorkError(
      "no picture of " + m_input.FileName() + " can be decoded" +
      (m_input.IsSeekable() ? "" : "; a pipe needs a format whose index, if any, stands in front"));
}

void Job::CheckMemory(const StabilizerFacts& facts) const {
  const std::string needed =
      std::to_string(facts.framesHeld) + " frames in memory at once, " + Megabytes(facts.bytesHeld);
  const std::int64_t available = AvailableMemory();
  if (facts.bytesHeld > available)
    throw WorkError("the window needs " + needed + ", and this machine has " + Megabytes(available) +
                    " left; a shorter --window needs less");
  m_notes.Tell("holds " + needed);
}

void Job::SetUp(const AVFrame& first) {
  const PicturePlan plan =
      MakePicturePlan(m_options, m_input, first, *m_output.Format().oformat, m_output.FileName());
  m_width = first.width;
  m_height = first.height;
  CheckMemory(plan.stabilizer);
  m_stages.emplace(plan, m_options.encoding, m_output);
  const AVCodecContext& encoder = m_stages->encoder.Context();
  AVStream& stream = m_output.AddStream();
  Check(avcodec_parameters_from_context(stream.codecpar, &encoder), "cannot write " + m_output.FileName());
  m_pictureIndex = stream.index;
  stream.time_base = encoder.time_base;
  stream.sample_aspect_ratio = encoder.sample_aspect_ratio;
  if (plan.facts.hasConstantRate || m_stages->encoder.HasFixedTicks())
    stream.avg_frame_rate = encoder.framerate;
  CopyTags(m_input.Picture(), stream, true);
  AddPictureData(plan, m_input.Picture(), stream);
  m_sides.emplace(m_input, m_output);
  m_leftOut = plan.leftOut;
  m_leftOut.insert(m_leftOut.end(), m_sides->LeftOut().begin(), m_sides->LeftOut().end());
  CopyFileTags(m_input, m_range, m_output);
  // Pictures reach the muxer later than sound: by the window and by the encoder's look-ahead.
  const double rate = std::max(1.0, av_q2d(encoder.framerate));
  const double late = static_cast<double>(plan.stabilizer.framesHeld + 100) / rate + 10;
  m_output.Format().max_interleave_delta = static_cast<std::int64_t>(late * AV_TIME_BASE);
  m_output.Begin();
  if (m_stages->encoder.HasFixedTicks())
    m_notes.Tell("this format has a fixed rate: each picture moves to the nearest of " +
                 Tenths(av_q2d(encoder.framerate)) + " ticks a second");
  m_progress.emplace(m_pTerminal, m_range.ExpectedPictures(), m_pTerminal != nullptr);
  // The lead-in: the engine's delay, one less than the frames held, and two pictures for a deinterlacer.
  if (!m_readsAll) m_range.Skip(m_input, static_cast<std::size_t>(plan.stabilizer.framesHeld) + 1);
}

void Job::TakePacket(AVPacket& packet) {
  if (packet.stream_index != m_input.Picture().index) return TakeSide(packet);
  if (!m_isComplete) DecodePicture(&packet);
}

void Job::TakeSide(AVPacket& packet) {
  const AVStream& stream = *m_input.Format().streams[packet.stream_index];
  if (m_range.HasBegun()) {
    if (m_range.Cut(packet, stream)) m_sides->Take(packet);
  } else if (!m_range.EndsBefore(packet, stream.time_base)) {
    m_waiting.emplace_back(Allocated(av_packet_clone(&packet)));
  }
}

/// Null ends the stream.
void Job::DecodePicture(const AVPacket* packet) {
  m_decoder.Send(packet);
  for (FramePtr frame = NewFrame(); m_decoder.Receive(*frame); frame = NewFrame()) {
    m_clock.Stamp(*frame);
    if (!m_range.IsBeforeLeadIn(frame->pts)) TakePicture(std::move(frame));
  }
}

/// Null ends the stream.
void Job::TakePicture(FramePtr frame) {
  m_changesSize = m_changesSize || (frame && (frame->width != m_width || frame->height != m_height));
  m_stages->prepare.Push(std::move(frame));
  while (FramePtr prepared = m_stages->prepare.Pull()) {
    if (!m_range.Place(*prepared)) throw LeadInTooShort();
    if (m_options.compare) m_originals.emplace_back(Allocated(av_frame_clone(prepared.get())));
    m_stages->pStabilizer->Push(std::move(prepared));
    Stabilize();
  }
  if (!m_range.HasBegun()) return;
  for (; !m_waiting.empty(); m_waiting.pop_front()) TakeSide(*m_waiting.front());
}

/// The oldest frame as it came, cropped to the stabilized frame's size; null without --compare.
FramePtr Job::TakeOriginal(const AVFrame& stabilized) {
  if (m_originals.empty()) return nullptr;
  FramePtr frame = std::move(m_originals.front());
  m_originals.pop_front();
  frame->crop_left = static_cast<std::size_t>(frame->width - stabilized.width) / 2;
  frame->crop_top = static_cast<std::size_t>(frame->height - stabilized.height) / 2;
  frame->crop_right = static_cast<std::size_t>(frame->width - stabilized.width) - frame->crop_left;
  frame->crop_bottom = static_cast<std::size_t>(frame->height - stabilized.height) - frame->crop_top;
  Check(av_frame_apply_cropping(frame.get(), AV_FRAME_CROP_UNALIGNED), "cannot cut a frame");
  return frame;
}

void Job::Stabilize() {
  while (FramePtr frame = m_stages->pStabilizer->Deliver()) {
    m_isComplete = m_isComplete || m_range.IsBehind(frame->pts);
    FramePtr before = TakeOriginal(*frame);
    if ((frame->flags & AV_FRAME_FLAG_DISCARD) != 0) continue;
    if (before) m_stages->finish.Push(std::move(before));
    m_stages->finish.Push(std::move(frame));
    Encode();
    m_progress->Update(++m_frames);
  }
}

void Job::Encode() {
  while (const FramePtr frame = m_stages->finish.Pull()) {
    frame->pts -= m_range.Origin(m_input.Picture().time_base);
    m_stages->encoder.Send(frame.get());
    WritePackets();
  }
}

void Job::WritePackets() {
  const PacketPtr packet = NewPacket();
  while (m_stages->encoder.Receive(*packet))
    m_output.Write(*packet, m_pictureIndex, m_stages->encoder.Context().time_base);
}

void Job::End() {
  if (!m_isComplete) {
    DecodePicture(nullptr);
    TakePicture(nullptr);
    m_stages->pStabilizer->End();
    Stabilize();
  }
  if (m_frames == 0)
    throw WorkError("no picture of " + m_input.FileName() + " lies in the range from --start to --end");
  m_stages->pStabilizer->Finish();
  m_stages->finish.Push(nullptr);
  Encode();
  m_stages->encoder.Send(nullptr);
  WritePackets();
  m_sides->End();
}

void Job::CheckLength() const {
  if (m_isComplete) return;
  const std::optional<double> part = m_input.FractionRead(m_clock.End());
  if (!part || *part >= 0.95) return;
  const std::string text = m_input.FileName() + " breaks off after " + std::to_string(m_frames) +
                           " frames, at " + std::to_string(static_cast<int>(std::max(0.0, *part) * 100)) +
                           " % of its length";
  if (!m_options.keepPartial) throw WorkError(text + "; --keep-partial keeps what there is");
  m_notes.Warn(text);
}

void Job::Close() {
  m_output.Finish();
  m_progress.reset();
  if (m_decoder.DamageCount() > 0)
    m_notes.Warn(m_input.FileName() +
                 " is damaged; pictures skipped or mended: " + std::to_string(m_decoder.DamageCount()));
  if (m_changesSize)
    m_notes.Warn("the size of the pictures changes in " + m_input.FileName() +
                 "; all were scaled to the size of the first, " + std::to_string(m_width) + 'x' +
                 std::to_string(m_height));
  std::string leftOut;
  for (const std::string& text : m_leftOut) leftOut += (leftOut.empty() ? "left out: " : ", ") + text;
  if (m_stages->prepare.Deinterlaces())
    m_notes.Tell("the clip is interlaced: each frame became a progressive one, made of both its fields");
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - m_start;
  if (m_notes.IsVerbose())
    m_notes.Tell("wrote " + m_output.FileName() + ": " + std::to_string(m_frames) + " frames in " +
                 Tenths(took.count()) + " s" + (leftOut.empty() ? "" : "; " + leftOut));
  else if (!leftOut.empty())
    m_notes.Warn(leftOut);
}

/// Reads some seconds past the range's end, because files store sound and subtitles behind their pictures.
void Job::Read() {
  constexpr std::int64_t kFarthestBehind = 10'000;  // milliseconds
  const PacketPtr packet = NewPacket();
  while (m_input.Read(*packet)) {
    const bool isPicture = packet->stream_index == m_input.Picture().index;
    if (m_isComplete && isPicture && packet->dts != AV_NOPTS_VALUE &&
        m_range.IsBehind(packet->dts, kFarthestBehind))
      return;
    TakePacket(*packet);
    av_packet_unref(packet.get());
  }
}

void Job::Run() {
  const auto first = FindFirstFrame();
  MotionFileGuard motionFile(m_options.motionFile);
  SetUp(*first);
  Read();
  End();
  CheckLength();
  Close();
  motionFile.Keep();
}

}  // namespace

void StabilizeFile(const Options& options, const std::string& inputName, const std::string& outputName,
                   const Notes& notes, std::FILE* terminal) {
  CheckFiles(options, inputName, outputName);
  try {
    Job(options, inputName, outputName, notes, terminal, options.tripod).Run();
  } catch (const LeadInTooShort&) {
    if (inputName == kStandardStream)
      throw WorkError("the standard input has no key frame to begin with before --start; give it as a file");
    Job(options, inputName, outputName, notes, terminal, true).Run();
  }
}
