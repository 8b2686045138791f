#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "base/rect.h"
#include "base/simd.h"
#include "precise/picture.h"
#include "precise/rowrunner.h"

namespace precise {

/// What becomes of the margins: the picture inside them is magnified, they are cut off, or a border covers
/// them.
enum class Clipping { Stretch, Crop, Outline };

enum class Interpolation { Nearest, Bilinear, Bicubic };

struct Settings {
  std::int32_t window = 32;  ///< frames that the path is smoothed over: even, 2 to 256
  /// Margins at each side, in luma samples; something must be left between them. Every pixel shown comes from
  /// the frame with `Stretch` if both margins are above 0, and with `Crop` if both hold a whole chroma
  /// sample. Otherwise edges may show.
  double marginX = 0, marginY = 0;
  Clipping clipping = Clipping::Stretch;
  Interpolation interpolation = Interpolation::Bicubic;
  bool correctRoll = true;
  bool tripod = false;   ///< align every frame of a shot with its first
  bool findCuts = true;  ///< false: the stream is one shot
  /// The region that motion is measured in, in luma samples; empty: the whole picture. It needs some 14
  /// samples a side, and more where both sides of the picture are longer than 300: they are halved until one
  /// is not. Smaller regions give no motion.
  std::optional<Rect> estimateFrom = {};
  /// What uncovered pixels show: a sample value for each plane but alpha, which is 0 there.
  std::array<std::uint16_t, kMaxPlanes> background = {};
  bool keepBackground = false;  ///< uncovered pixels show what earlier frames of the shot had there
  /// Weights of the frames 0, 1, … window / 2 away from the one delivered. Empty: the engine's own.
  std::vector<double> pathWeights = {};
};

/// How the content of a picture moves: luma samples to the right, luma samples downward, and radians
/// clockwise about the picture's centre.
struct Movement {
  double x = 0, y = 0, roll = 0;
};

/// What was measured of a frame, and how it was corrected.
struct FrameReport {
  std::int64_t frame = 0;  ///< number, from 0
  std::int64_t shot = 0;   ///< number of its shot, from 0
  Movement motion;         ///< of the content, since the frame before; zero in the first of a shot
  double zoom = 1;         ///< how much larger the content is than in the frame before
  Movement correction;     ///< of the content, by the stabilizer
};

/// True when a stream of this format can be stabilized with these settings: sides of 1 to 32767 samples, 1 to
/// 4 planes, 8 to 16 bits, chroma shifts of 0 to 2 and sites of -4 to 4, a pixel aspect of 1/16 to 16, an
/// even window of 2 to 256, margins that are not negative and leave a sample, a region that holds a sample of
/// the picture, window / 2 + 1 path weights of 0 to 1e9, of which the first is more than 0.
bool AreUsable(const PictureFormat& format, const Settings& settings);

/// The format of the frames that come out: smaller with `Clipping::Crop`, the same otherwise. Margins are cut
/// off in whole chroma samples.
PictureFormat OutputFormat(const PictureFormat& format, const Settings& settings);

/// How many frames must follow a frame before it can be delivered: half a window, or a whole window where
/// margins keep edges out. The engine holds one frame more than that.
std::int32_t DelayFrames(const PictureFormat& format, const Settings& settings);

/// Stabilizes one stream of planar frames, with a delay of `DelayFrames`.
///
/// Frames are borrowed: `Push` keeps the addresses of the planes. Plane 0 is read until the frame is
/// delivered, the others only when it is. Frames are delivered in order, so the caller gets back one frame
/// with each `Deliver` or `Skip`. Nothing allocates after construction. Calls are made by one thread at a
/// time.
///
///   for each frame:  Push(frame); if (CanDeliver()) Deliver(out);
///   End(); while (CanDeliver()) Deliver(out);
class CStabilizer {
 public:
  /// `AreUsable` is true of the format and settings. Throws std::bad_alloc. The runner, if there is one, runs
  /// the rows of the reduction in `Push` and of the drawing in `Deliver`. Neither it nor the cap on the
  /// instruction set changes a byte.
  CStabilizer(const PictureFormat& format, const Settings& settings, SimdLevel cap = SimdLevel::Avx2,
              RowRunner runner = {});
  ~CStabilizer();
  CStabilizer(const CStabilizer&) = delete;
  CStabilizer& operator=(const CStabilizer&) = delete;

  /// The delay that the format and settings ask for.
  std::int32_t DelayFrames() const;

  /// Takes the next frame: planes of the input format. Call it only while `CanDeliver` is false, and before
  /// `End`.
  void Push(const ConstPicture& frame);

  /// Ends the stream: all frames held can be delivered.
  void End();

  /// True when all frames that the oldest frame held depends on have come.
  bool CanDeliver() const;

  /// Writes the oldest frame, stabilized, to `out` (planes of the output format, which overlap no frame that
  /// is held), and gives the frame back. Call it only while `CanDeliver` is true.
  FrameReport Deliver(const Picture& out);

  /// As `Deliver`, without drawing. Later frames are the same as after `Deliver`, but a kept background does
  /// not show the skipped frame.
  FrameReport Skip();

 private:
  struct Stream;
  std::unique_ptr<Stream> m_pStream;
};

}  // namespace precise
