#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "host/options.h"
#include "video/av.h"

/// What an encoder is told of the pictures it gets.
struct PictureFacts {
  AVPixelFormat source = AV_PIX_FMT_NONE;  ///< what the frames are made from
  int width = 0, height = 0;
  AVRational pixelAspect = {0, 1};
  AVColorPrimaries primaries = AVCOL_PRI_UNSPECIFIED;
  AVColorTransferCharacteristic transfer = AVCOL_TRC_UNSPECIFIED;
  AVColorSpace matrix = AVCOL_SPC_UNSPECIFIED;
  AVColorRange range = AVCOL_RANGE_UNSPECIFIED;
  AVChromaLocation chromaSite = AVCHROMA_LOC_UNSPECIFIED;
  AVRational rate = {0, 1};         ///< frames a second; 0: unknown
  AVRational nominalRate = {0, 1};  ///< of which the times are multiples; 0: none
  bool hasConstantRate = false;
  AVRational timeBase = {0, 1};
  const AVMasteringDisplayMetadata* mastering = nullptr;  ///< null: not known
  const AVContentLightMetadata* light = nullptr;          ///< null: not known

  bool IsHighDynamic() const { return transfer == AVCOL_TRC_SMPTE2084 || transfer == AVCOL_TRC_ARIB_STD_B67; }
};

/// The encoder that was asked for, or the best for the format and such pictures. Throws UsageError.
const AVCodec& ChooseEncoder(const Encoding& wanted, const AVOutputFormat& format,
                             const std::string& fileName, const PictureFacts& facts);

/// The pixel format of the encoder that is nearest to the pictures' source: the engine's own formats first.
/// Throws UsageError when an encoder has none for their size.
AVPixelFormat ChoosePixelFormat(const AVCodec& encoder, const PictureFacts& facts);

/// Encodes pictures. Each keeps its time and duration, as near as the container can.
class PictureEncoder {
 public:
  /// Throws UsageError for options that the encoder lacks, and WorkError.
  PictureEncoder(const AVCodec& encoder, AVPixelFormat format, const Encoding& wanted,
                 const PictureFacts& facts, const AVOutputFormat& container);

  const AVCodecContext& Context() const { return *m_pContext; }

  /// True when the container has one rate, and times move to its nearest tick.
  bool HasFixedTicks() const { return m_hasFixedTicks; }

  /// Null: no picture follows. Throws WorkError.
  void Send(AVFrame* frame);

  /// False when there is none until more is sent. Throws WorkError.
  bool Receive(AVPacket& packet);

 private:
  void Stamp(AVFrame& frame);

  CodecPtr m_pContext;
  AVRational m_sourceBase;
  bool m_hasFixedTicks = false;
  std::int64_t m_lastPts = AV_NOPTS_VALUE, m_lastDuration = 0;
  std::map<std::int64_t, std::int64_t> m_durations;  // of pictures inside the encoder, by time
};
