// A stream through three precise engines in step: one with scalar loops, one with vector loops, and one more
// with vector loops, rows in pieces and frames skipped.

#include <algorithm>
#include <cstring>
#include <deque>
#include <memory>

#include "fuzz/target.h"
#include "precise/stabilizer.h"
#include "scenes/planarscene.h"

namespace precise {
namespace {

PictureFormat ChooseFormat(Choices& choices) {
  const std::int32_t most = choices.OneOf({40, 24, 40, 4, 40, 90, 24, 40, 24, 330});
  return {.width = choices.Number(1, most),
          .height = choices.Number(1, most),
          .planes = choices.Number(1, kMaxPlanes),
          .bitsPerSample = choices.OneOf({8, 10, 16, 8, 12, 14, 9, 15}),
          .chromaShiftX = choices.Number(0, 2),
          .chromaShiftY = choices.Number(0, 2),
          .chromaSiteX = choices.OneOf({0.0, 0.5, 1.5, -4.0, 4.0}),
          .chromaSiteY = choices.OneOf({0.0, 0.5, 1.5, -4.0, 4.0}),
          .pixelAspect = choices.OneOf({1.0, 4.0 / 3, 0.5, 1.0 / 16, 16.0})};
}

Settings ChooseSettings(Choices& choices, const PictureFormat& format) {
  const auto margin = [&](std::int32_t side) { return choices.Number(0, 2 * (side - 1)) / 4.0; };
  Settings settings = {.window = 2 * choices.Number(1, 5),
                       .marginX = choices.Once(3) ? 0 : margin(format.width),
                       .marginY = choices.Once(3) ? 0 : margin(format.height) / choices.Number(1, 4),
                       .clipping = choices.OneOf({Clipping::Stretch, Clipping::Crop, Clipping::Outline}),
                       .interpolation = choices.OneOf(
                           {Interpolation::Bicubic, Interpolation::Bilinear, Interpolation::Nearest}),
                       .correctRoll = !choices.Once(4),
                       .tripod = choices.Once(4),
                       .findCuts = !choices.Once(4),
                       .keepBackground = choices.Once(3)};
  if (choices.Once(4))
    settings.estimateFrom = {choices.Number(-9, format.width), choices.Number(-9, format.height),
                             choices.Number(0, format.width + 9), choices.Number(0, format.height + 9)};
  for (std::uint16_t& sample : settings.background)
    sample = static_cast<std::uint16_t>(choices.Number(0, (1 << format.bitsPerSample) - 1));
  return settings;
}

/// A camera's picture, or what no camera takes: random bytes, also samples beyond their bits, or a flat
/// field.
void Shoot(Choices& choices, const PictureFormat& format, PlanarBuffer& buffer) {
  const std::uint32_t kind = choices.Byte() % 8;
  const Take take = {.pose = MakePose(choices.Number(-60, 60) / 8.0, choices.Number(-60, 60) / 8.0,
                                      choices.Number(-40, 40) / 10.0, choices.Number(90, 110) / 100.0),
                     .scene = choices.Once(6) ? 2U : 1U,
                     .gain = choices.OneOf({1.0, 1.0, 0.5}),
                     .noise = choices.OneOf({0.0, 0.0, 4.0})};
  if (kind < 5) return buffer.Write(::Shoot(format, take));
  for (std::vector<std::uint8_t>& bytes : buffer.bytes) {
    if (kind == 7) std::ranges::fill(bytes, choices.OneOf<std::uint8_t>({0, 255, 128}));
    if (kind < 7) choices.Fill(bytes);
  }
}

/// Rows in pieces of any size, the last ones first.
RowRunner Pieces(std::int32_t most) {
  return [most](std::int32_t rows, RowWork work, const void* context) {
    for (std::int32_t end = rows, begin; end > 0; end = begin) {
      begin = std::max(end - 1 - end * 7 % most, 0);
      work(context, begin, end);
    }
  };
}

void LiveInStep(Choices& choices) {
  const PictureFormat format = ChooseFormat(choices);
  const Settings settings = ChooseSettings(choices, format);
  if (!AreUsable(format, settings)) return;
  const PictureFormat shown = OutputFormat(format, settings);
  CStabilizer scalar(format, settings, SimdLevel::Scalar), vector(format, settings),
      pieces(format, settings, SimdLevel::Avx2, Pieces(choices.Number(1, 40)));
  std::deque<PlanarBuffer> lent;
  const auto deliver = [&] {
    Require(vector.CanDeliver() == scalar.CanDeliver() && pieces.CanDeliver() == scalar.CanDeliver(),
            "engines deliver at the same time");
    if (!scalar.CanDeliver()) return false;
    PlanarBuffer expected(shown);
    const FrameReport report = scalar.Deliver(expected.View<std::uint8_t>());
    for (CStabilizer* const other : {&vector, &pieces}) {
      const bool skips = other == &pieces && !settings.keepBackground && choices.Once(8);
      PlanarBuffer actual(shown, false, 0, 90);
      const FrameReport same = skips ? other->Skip() : other->Deliver(actual.View<std::uint8_t>());
      Require(std::memcmp(&report, &same, sizeof same) == 0, "reports are equal");
      Require(skips || expected.bytes == actual.bytes, "pictures are equal");
    }
    lent.pop_front();
    return true;
  };
  while (choices.AreLeft()) {
    Shoot(choices, format, lent.emplace_back(format, choices.Once(3)));
    for (CStabilizer* const engine : {&scalar, &vector, &pieces})
      engine->Push(lent.back().View<const std::uint8_t>());
    deliver();
  }
  for (CStabilizer* const engine : {&scalar, &vector, &pieces}) engine->End();
  while (deliver()) {
  }
  Require(lent.empty(), "all frames come out");
}

}  // namespace
}  // namespace precise

void Live(Choices& choices) { precise::LiveInStep(choices); }
