#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "host/options.h"
#include "video/av.h"

/// Properties of the pictures that an encoder gets.
struct PictureFacts {
  AVPixelFormat source = AV_PIX_FMT_NONE;  ///< pixel format of the decoded pictures
  int width = 0, height = 0;
  AVRational pixelAspect = {0, 1};
  AVColorPrimaries primaries = AVCOL_PRI_UNSPECIFIED;
  AVColorTransferCharacteristic transfer = AVCOL_TRC_UNSPECIFIED;
  AVColorSpace matrix = AVCOL_SPC_UNSPECIFIED;
  AVColorRange range = AVCOL_RANGE_UNSPECIFIED;
  AVChromaLocation chromaSite = AVCHROMA_LOC_UNSPECIFIED;
  AVRational rate = {0, 1};         ///< frames a second; 0: unknown
  AVRational nominalRate = {0, 1};  ///< the lowest that represents all times; 0: none
  bool hasConstantRate = false;
  AVRational timeBase = {0, 1};
  const AVMasteringDisplayMetadata* mastering = nullptr;  ///< null: unknown
  const AVContentLightMetadata* light = nullptr;          ///< null: unknown

  bool IsHighDynamic() const { return transfer == AVCOL_TRC_SMPTE2084 || transfer == AVCOL_TRC_ARIB_STD_B67; }
};

/// The encoder that was asked for, or the best for the format and these pictures. Throws UsageError.
const AVCodec& ChooseEncoder(const Encoding& wanted, const AVOutputFormat& format,
                             const std::string& fileName, const PictureFacts& facts);

/// The encoder's pixel format that is nearest to `facts.source`. If the encoder has formats that the precise
/// engine takes and that keep colour, only those count. Throws UsageError when it has none for the pictures'
/// size.
AVPixelFormat ChoosePixelFormat(const AVCodec& encoder, const PictureFacts& facts);

/// Encodes pictures. Each keeps its time and duration, rounded to the encoder's time base.
class PictureEncoder {
 public:
  /// Throws UsageError for options that the encoder lacks, and WorkError.
  PictureEncoder(const AVCodec& encoder, AVPixelFormat format, const Encoding& wanted,
                 const PictureFacts& facts, const AVOutputFormat& container);

  const AVCodecContext& Context() const { return *m_pContext; }

  /// True when the container or the encoder has fixed rates only: times are rounded to the ticks of one.
  bool HasFixedTicks() const { return m_hasFixedTicks; }

  /// Null ends the stream. Throws WorkError.
  void Send(AVFrame* frame);

  /// False when the next packet needs another picture, or the stream has ended. Throws WorkError.
  bool Receive(AVPacket& packet);

 private:
  void Stamp(AVFrame& frame);

  CodecPtr m_pContext;
  AVRational m_sourceBase;
  bool m_hasFixedTicks = false;
  std::int64_t m_lastPts = AV_NOPTS_VALUE, m_lastDuration = 0;
  std::map<std::int64_t, std::int64_t> m_durations;  // of pictures inside the encoder, by pts
};
