#pragma once

#include <cstdio>
#include <memory>

#include "host/options.h"

/// One stream through an engine. All calls may throw WorkError and std::bad_alloc. After a WorkError from
/// `Take`, the earlier frames can still be delivered.
class Pipeline {
 public:
  virtual ~Pipeline() = default;

  /// Reads the next frame; false at the input's end.
  virtual bool Take() = 0;

  /// Tells the engine that no frame follows.
  virtual void EndInput() = 0;

  /// Writes the next stabilized frame; false when none is ready.
  virtual bool Deliver() = 0;

  /// Ends the stream after the last frame was delivered.
  virtual void Finish() = 0;
};

/// Makes a pipeline with the classic engine, for raw frames. Throws WorkError, UsageError and std::bad_alloc.
std::unique_ptr<Pipeline> MakeClassicPipeline(const Options& options, std::FILE* input, std::FILE* output);

/// Makes a pipeline with the precise engine, for YUV4MPEG2, and reads the input's head. Throws WorkError,
/// UsageError and std::bad_alloc.
std::unique_ptr<Pipeline> MakePrecisePipeline(const Options& options, std::FILE* input, std::FILE* output);

/// The size of output frames. For the precise engine this reads the input's head. Throws WorkError and
/// UsageError.
FrameSize ReadOutputSize(const Options& options, std::FILE* input);
