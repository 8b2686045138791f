#pragma once

#include <memory>

#include "host/options.h"
#include "host/settings.h"
#include "video/av.h"

/// A stream of pictures on its way through an engine. Times and what else goes with a frame stay with it.
class PictureStabilizer {
 public:
  virtual ~PictureStabilizer() = default;

  /// Takes a frame and keeps it until it is delivered. Throws WorkError and std::bad_alloc.
  virtual void Push(FramePtr frame) = 0;

  /// No frame follows.
  virtual void End() = 0;

  /// The oldest frame, stabilized; null when none is ready. It is not logged where its flags say
  /// AV_FRAME_FLAG_DISCARD. Throws WorkError and std::bad_alloc.
  virtual FramePtr Deliver() = 0;

  /// All frames are delivered. Throws WorkError.
  virtual void Finish() = 0;
};

/// Frames of a stabilizer, as they come out, and how much memory it holds.
struct StabilizerFacts {
  int width = 0, height = 0;
  std::int64_t framesHeld = 0, bytesHeld = 0;
};

/// What the stabilizer will be for such frames. Throws UsageError when it cannot work so.
StabilizerFacts FactsOf(const Options& options, const StreamFacts& stream, AVPixelFormat format);

/// For frames of `format`: the precise engine's as `stream` says, the classic engine's BGR24. The motion log
/// goes to `options.motionFile`. Throws UsageError, WorkError and std::bad_alloc.
std::unique_ptr<PictureStabilizer> MakePictureStabilizer(const Options& options, const StreamFacts& stream,
                                                         AVPixelFormat format);
