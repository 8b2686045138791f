#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/settings.h"
#include "video/encoder.h"
#include "video/framefilter.h"
#include "video/input.h"
#include "video/orientation.h"
#include "video/picturestabilizer.h"

/// How pictures go from the decoder to the encoder.
struct PicturePlan {
  Options options;         ///< of the pictures as the engine gets them
  PictureTarget prepared;  ///< for the engine
  StreamFacts stream;      ///< of the engine's pictures
  PictureTarget finished;  ///< for the encoder
  const AVCodec* encoder = nullptr;
  PictureFacts facts;  ///< of the encoder's pictures
  StabilizerFacts stabilizer;
  std::optional<DisplayMatrix> matrix;  ///< that the output tells
  std::vector<std::string> leftOut;     ///< of the pictures, what the encoder cannot hold
};

/// Decides by the first frame, whose data it refers to. Throws UsageError.
PicturePlan MakePicturePlan(const Options& options, const Input& input, const AVFrame& first,
                            const AVOutputFormat& format, const std::string& outputName);

/// What the picture's stream tells beside its codec.
void AddPictureData(const PicturePlan& plan, const AVStream& from, AVStream& to);
