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
  Options options;         ///< with region and margins of the engine's pictures
  PictureTarget prepared;  ///< what the engine gets
  StreamFacts stream;      ///< of the engine's pictures
  PictureTarget finished;  ///< what the encoder gets
  const AVCodec* encoder = nullptr;
  PictureFacts facts;  ///< of the encoder's pictures
  StabilizerFacts stabilizer;
  std::optional<DisplayMatrix> matrix;  ///< to store in the output; nothing: none
  std::vector<std::string> leftOut;     ///< what the encoder cannot keep, in words
};

/// Plans by the first frame, which must outlive the plan: `facts` points to its metadata. Throws UsageError.
PicturePlan MakePicturePlan(const Options& options, const Input& input, const AVFrame& first,
                            const AVOutputFormat& format, const std::string& outputName);

/// Gives the output's picture stream its side data: display matrix, 3D layout, projection, HDR metadata.
void AddPictureData(const PicturePlan& plan, const AVStream& from, AVStream& to);
