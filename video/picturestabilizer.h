#pragma once

#include <memory>

#include "host/options.h"
#include "host/settings.h"
#include "video/av.h"

/// Stabilizes a stream of pictures with either engine. Each frame keeps its time and its metadata.
class PictureStabilizer {
 public:
  virtual ~PictureStabilizer() = default;

  /// Takes a frame and keeps it until it is delivered. Throws WorkError and std::bad_alloc.
  virtual void Push(FramePtr frame) = 0;

  /// Ends the stream. The frames still held can then be delivered.
  virtual void End() = 0;

  /// The next frame, stabilized; null when none is ready. Frames with AV_FRAME_FLAG_DISCARD are not logged.
  /// Throws WorkError and std::bad_alloc.
  virtual FramePtr Deliver() = 0;

  /// Closes the motion log, after all frames are delivered. Throws WorkError.
  virtual void Finish() = 0;
};

/// The size of a stabilizer's output, and how much it holds in memory.
struct StabilizerFacts {
  int width = 0, height = 0;
  std::int64_t framesHeld = 0, bytesHeld = 0;
};

/// The facts of a stabilizer for such frames. Throws UsageError when the options do not fit them.
StabilizerFacts FactsOf(const Options& options, const StreamFacts& stream, AVPixelFormat format);

/// `format` is the pixel format that `stream` describes; for the classic engine it is BGR24. The motion log
/// goes to `options.motionFile`. Throws UsageError, WorkError and std::bad_alloc.
std::unique_ptr<PictureStabilizer> MakePictureStabilizer(const Options& options, const StreamFacts& stream,
                                                         AVPixelFormat format);
