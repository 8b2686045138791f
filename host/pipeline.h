#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>

#include "host/options.h"

/// A stream on its way through an engine. All calls throw WorkError. After a failure of `Take` the earlier
/// frames can still be delivered.
class Pipeline {
 public:
  virtual ~Pipeline() = default;

  /// Reads a frame for the engine; false at the input's end.
  virtual bool Take() = 0;

  /// No frame follows.
  virtual void EndInput() = 0;

  /// Writes the next frame that comes out; false when none is ready.
  virtual bool Deliver() = 0;

  /// All frames are delivered.
  virtual void Finish() = 0;
};

/// Raw frames through the classic engine. Throws WorkError, UsageError and std::bad_alloc.
std::unique_ptr<Pipeline> MakeClassicPipeline(const Options& options, std::FILE* input, std::FILE* output);

/// YUV4MPEG2 through the precise engine. Reads the input's head. Throws WorkError and UsageError.
std::unique_ptr<Pipeline> MakePrecisePipeline(const Options& options, std::FILE* input, std::FILE* output);

/// Size of the frames that come out of the engine. For the precise one it reads the input's head. Throws as
/// above.
FrameSize ReadOutputSize(const Options& options, std::FILE* input);
