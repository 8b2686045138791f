#include "video/pictureplan.h"

#include <algorithm>
#include <cstring>

#include "video/output.h"
#include "video/pixelformats.h"

namespace {

constexpr int kFirstRowsOfBt709 = 720;

template <class T>
const T* Find(const AVFrame& frame, AVFrameSideDataType ofFrame, const AVStream& stream,
              AVPacketSideDataType ofStream) {
  if (const AVFrameSideData* const data = av_frame_get_side_data(&frame, ofFrame))
    return reinterpret_cast<const T*>(data->data);
  return reinterpret_cast<const T*>(av_stream_get_side_data(&stream, ofStream, nullptr));
}

std::optional<DisplayMatrix> MatrixOf(const AVStream& stream, const AVFrame& frame) {
  const auto* const data =
      Find<std::uint8_t>(frame, AV_FRAME_DATA_DISPLAYMATRIX, stream, AV_PKT_DATA_DISPLAYMATRIX);
  if (!data) return std::nullopt;
  DisplayMatrix matrix;
  std::memcpy(matrix.data(), data, sizeof matrix);
  return matrix;
}

ColourMatrix EngineMatrix(const PictureFacts& facts, AVPixelFormat format) {
  if (IsRgb(format)) return ColourMatrix::Rgb;
  if (facts.matrix == AVCOL_SPC_BT2020_NCL || facts.matrix == AVCOL_SPC_BT2020_CL)
    return ColourMatrix::Bt2020;
  const bool isOld = facts.matrix == AVCOL_SPC_UNSPECIFIED ? facts.height < kFirstRowsOfBt709
                                                           : facts.matrix != AVCOL_SPC_BT709;
  return isOld ? ColourMatrix::Bt601 : ColourMatrix::Bt709;
}

PictureFacts SourceFacts(const Input& input, const AVFrame& first) {
  const AVStream& stream = input.Picture();
  PictureFacts facts;
  facts.source = static_cast<AVPixelFormat>(first.format);
  facts.width = first.width;
  facts.height = first.height;
  facts.pixelAspect = av_guess_sample_aspect_ratio(&input.Format(), &input.Picture(), nullptr);
  facts.primaries = first.color_primaries;
  facts.transfer = first.color_trc;
  facts.matrix = first.colorspace;
  facts.range = RangeOf(first);
  facts.chromaSite = first.chroma_location;
  facts.rate = input.Rate();
  facts.nominalRate = input.NominalRate();
  facts.hasConstantRate = input.HasConstantRate();
  facts.timeBase = stream.time_base;
  facts.mastering = Find<AVMasteringDisplayMetadata>(first, AV_FRAME_DATA_MASTERING_DISPLAY_METADATA, stream,
                                                     AV_PKT_DATA_MASTERING_DISPLAY_METADATA);
  facts.light = Find<AVContentLightMetadata>(first, AV_FRAME_DATA_CONTENT_LIGHT_LEVEL, stream,
                                             AV_PKT_DATA_CONTENT_LIGHT_LEVEL);
  return facts;
}

/// Keeps the display matrix when the output can store it (`keepsMatrix`); otherwise plans to turn the
/// pictures.
void Orient(PicturePlan& plan, const AVStream& stream, const AVFrame& first, bool keepsMatrix) {
  const std::optional<DisplayMatrix> matrix = MatrixOf(stream, first);
  if (!matrix) return;
  if (keepsMatrix) {
    plan.matrix = matrix;
    plan.options = AsStored(plan.options, *matrix, first.width, first.height);
    return;
  }
  plan.prepared.filters = TurnFilters(*matrix);
  if (!SwapsSides(*matrix)) return;
  std::swap(plan.facts.width, plan.facts.height);
  if (plan.facts.pixelAspect.num > 0) plan.facts.pixelAspect = av_inv_q(plan.facts.pixelAspect);
}

/// Sets matrix and range of the encoder's pictures. They change when RGB becomes YUV, when YUV becomes RGB,
/// and for JPEG.
void SetColours(PicturePlan& plan, AVPixelFormat encoded) {
  PictureFacts& facts = plan.facts;
  const bool wasRgb = IsRgb(facts.source);
  if (IsRgb(encoded)) {
    facts.matrix = AVCOL_SPC_RGB;
    facts.range = AVCOL_RANGE_JPEG;
  } else if (wasRgb) {
    facts.matrix = facts.height < kFirstRowsOfBt709 ? AVCOL_SPC_SMPTE170M : AVCOL_SPC_BT709;
    facts.range = AVCOL_RANGE_MPEG;
  }
  // Encoders of JPEG refuse limited range, and decoders take its matrix to be BT.601.
  const AVPixelFormat* const formats = plan.encoder->pix_fmts;
  if (formats && MeansFullRange(*formats)) {
    facts.matrix = AVCOL_SPC_BT470BG;
    facts.range = AVCOL_RANGE_JPEG;
  }
  plan.finished.matrix = plan.prepared.matrix = facts.matrix;
  plan.finished.range = plan.prepared.range = facts.range;
}

precise::PictureFormat StoredFormat(const PictureFacts& facts, AVPixelFormat format) {
  precise::PictureFormat picture = EngineFormat(format, facts.width, facts.height)
                                       .value_or(precise::PictureFormat{facts.width, facts.height});
  const AVRational aspect = facts.pixelAspect;
  if (aspect.num > 0 && aspect.den > 0) picture.pixelAspect = std::clamp(av_q2d(aspect), 1.0 / 16, 16.0);
  int x = 0, y = 0;
  const AVChromaLocation site =
      facts.chromaSite == AVCHROMA_LOC_UNSPECIFIED ? AVCHROMA_LOC_LEFT : facts.chromaSite;
  if (avcodec_enum_to_chroma_pos(&x, &y, site) < 0) return picture;
  if (picture.chromaShiftX > 0) picture.chromaSiteX = x / 256.0;
  if (picture.chromaShiftY > 0) picture.chromaSiteY = y / 256.0;
  return picture;
}

void CheckMargins(const PicturePlan& plan) {
  if (plan.options.engine != Engine::Precise) return;
  const precise::PictureFormat& format = plan.stream.format;
  const precise::Settings settings = MakePreciseSettings(plan.options, plan.stream);
  const double rest = (1 - 2 * settings.marginX / format.width) * (1 - 2 * settings.marginY / format.height);
  if (rest < 0.1)
    throw UsageError("--crop: less than a tenth of the picture would be left; give smaller margins");
}

/// Makes one picture of two successive ones, with a white line between them.
void LaySideBySide(PictureTarget& target) {
  constexpr int kDivider = 4;
  target.filters = "tile=layout=2x1:color=white:padding=" + std::to_string(kDivider);
  target.width = 2 * target.width + kDivider;
}

bool WritesCaptions(const AVCodec& encoder) {
  const AVClass* own = encoder.priv_class;
  const auto has = [&](const char* option) {
    return av_opt_find(&own, option, nullptr, 0, AV_OPT_SEARCH_FAKE_OBJ) != nullptr;
  };
  return own && (has("a53cc") || has("a53_cc"));
}

/// Adds the metadata that the encoder loses.
void AddDataLosses(const AVFrame& first, const AVStream& stream, const AVCodec& encoder,
                   std::vector<std::string>& losses) {
  const auto has = [&](AVFrameSideDataType type) { return av_frame_get_side_data(&first, type) != nullptr; };
  if (has(AV_FRAME_DATA_DYNAMIC_HDR_PLUS) || has(AV_FRAME_DATA_DYNAMIC_HDR_VIVID))
    losses.emplace_back("dynamic HDR metadata");
  if (has(AV_FRAME_DATA_DOVI_RPU_BUFFER) || has(AV_FRAME_DATA_DOVI_METADATA) ||
      av_stream_get_side_data(&stream, AV_PKT_DATA_DOVI_CONF, nullptr))
    losses.emplace_back("Dolby Vision metadata");
  if (has(AV_FRAME_DATA_A53_CC) && !WritesCaptions(encoder)) losses.emplace_back("closed captions");
}

std::vector<std::string> FindLosses(AVPixelFormat source, AVPixelFormat encoded) {
  const auto hasAlpha = [](AVPixelFormat format) {
    const std::uint64_t flags = av_pix_fmt_desc_get(format)->flags;
    return (flags & AV_PIX_FMT_FLAG_ALPHA) != 0 && (flags & AV_PIX_FMT_FLAG_PAL) == 0;
  };
  std::vector<std::string> losses;
  if (hasAlpha(source) && !hasAlpha(encoded)) losses.emplace_back("transparency");
  if (BitsOf(encoded) < BitsOf(source))
    losses.push_back(std::to_string(BitsOf(encoded)) + " of " + std::to_string(BitsOf(source)) +
                     " bits a sample are kept");
  return losses;
}

}  // namespace

PicturePlan MakePicturePlan(const Options& options, const Input& input, const AVFrame& first,
                            const AVOutputFormat& format, const std::string& outputName) {
  PicturePlan plan;
  plan.options = options;
  plan.facts = SourceFacts(input, first);
  Orient(plan, input.Picture(), first, IsMovFamily(format) && !options.compare);
  plan.encoder = &ChooseEncoder(options.encoding, format, outputName, plan.facts);

  const AVPixelFormat encoded = ChoosePixelFormat(*plan.encoder, plan.facts);
  SetColours(plan, encoded);
  plan.leftOut = FindLosses(plan.facts.source, encoded);
  AddDataLosses(first, input.Picture(), *plan.encoder, plan.leftOut);
  AVPixelFormat held = WithoutRange(encoded);
  if (options.engine == Engine::Kernel)
    held = AV_PIX_FMT_BGR24;
  else if (!EngineFormat(held, plan.facts.width, plan.facts.height))
    held = Nearest(held, EngineFormats());
  plan.prepared.format = held;
  plan.prepared.width = plan.facts.width;
  plan.prepared.height = plan.facts.height;
  plan.stream = {.format = StoredFormat(plan.facts, held),
                 .rateNumerator = plan.facts.rate.num,
                 .rateDenominator = plan.facts.rate.den,
                 .matrix = EngineMatrix(plan.facts, held),
                 .isFullRange = plan.facts.range == AVCOL_RANGE_JPEG};
  plan.stabilizer = FactsOf(plan.options, plan.stream, held);
  CheckMargins(plan);
  plan.finished.width = plan.stabilizer.width;
  plan.finished.height = plan.stabilizer.height;
  if (options.compare) LaySideBySide(plan.finished);
  plan.facts.width = plan.finished.width;
  plan.facts.height = plan.finished.height;
  plan.finished.format = encoded;
  return plan;
}

void AddPictureData(const PicturePlan& plan, const AVStream& from, AVStream& to) {
  const auto add = [&](AVPacketSideDataType type, const void* data, std::size_t size) {
    if (!data) return;
    std::memcpy(Allocated(av_stream_new_side_data(&to, type, size)), data, size);
  };
  for (const AVPacketSideDataType type : {AV_PKT_DATA_STEREO3D, AV_PKT_DATA_SPHERICAL}) {
    std::size_t size = 0;
    const std::uint8_t* const data = av_stream_get_side_data(&from, type, &size);
    add(type, data, size);
  }
  if (plan.matrix) add(AV_PKT_DATA_DISPLAYMATRIX, plan.matrix->data(), sizeof(DisplayMatrix));
  add(AV_PKT_DATA_MASTERING_DISPLAY_METADATA, plan.facts.mastering, sizeof(AVMasteringDisplayMetadata));
  add(AV_PKT_DATA_CONTENT_LIGHT_LEVEL, plan.facts.light, sizeof(AVContentLightMetadata));
}
