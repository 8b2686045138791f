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

/// What the margins do: magnify what lies inside them, cut them off, or draw a border over them.
enum class Clipping { Stretch, Crop, Outline };

enum class Interpolation { Nearest, Bilinear, Bicubic };

struct Settings {
  std::int32_t window = 32;  ///< frames that the path is smoothed over: even, 2 to 256
  /// What may be given up of each side, in luma samples. Where both are more than nothing, no uncovered pixel
  /// shows; otherwise edges may.
  double marginX = 0, marginY = 0;
  Clipping clipping = Clipping::Stretch;
  Interpolation interpolation = Interpolation::Bicubic;
  bool correctRoll = true;
  bool tripod = false;   ///< lay every frame of a shot on its first
  bool findCuts = true;  ///< or take the stream as one shot
  /// Nothing: the whole picture. Motion needs some 14 samples a side, more in pictures above 300 rows and
  /// columns.
  std::optional<Rect> estimateFrom = {};
  /// What shows where no source sample lies: a sample value for each plane, or what was last seen there.
  std::array<std::uint16_t, kMaxPlanes> background = {};
  bool keepBackground = false;
  /// Weights of the frames 0, 1, … window / 2 away from the one delivered. Empty: the engine's own.
  std::vector<double> pathWeights = {};
};

/// How the content of a picture moves about its centre: luma samples to the right, luma rows downward, and
/// radians clockwise.
struct Movement {
  double x = 0, y = 0, roll = 0;
};

/// What became of a delivered frame.
struct FrameReport {
  std::int64_t frame = 0;  ///< number, from 0
  std::int64_t shot = 0;   ///< number of its shot, from 0
  Movement motion;         ///< of the content, against the frame before; nothing in the first of a shot
  double zoom = 1;         ///< how much larger the content is than in the frame before
  Movement correction;     ///< of the content, by the stabilizer
};

/// True when a stream of this format can be stabilized with these settings: sides of 1 to 32767 samples, 8 to
/// 16 bits, chroma shifts of 0 to 2 and sites of at most 4, a pixel aspect of 1/16 to 16, an even window of 2
/// to 256, margins that are not negative and leave a sample, a region that holds a sample of the picture,
/// path weights that are not negative, of which the first is more than 0.
bool AreUsable(const PictureFormat& format, const Settings& settings);

/// The format of the frames that come out: smaller with `Clipping::Crop`, the same otherwise. Margins are cut
/// off in whole chroma samples.
PictureFormat OutputFormat(const PictureFormat& format, const Settings& settings);

/// How many frames beyond a frame must come before it is delivered: half the window, a whole one with
/// margins. One more is held then.
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
  /// The format and settings are usable. Throws std::bad_alloc. The runner, if there is one, is called by
  /// `Push` and `Deliver` for most of their work. Neither it nor the cap on the instruction set changes a
  /// byte.
  CStabilizer(const PictureFormat& format, const Settings& settings, SimdLevel cap = SimdLevel::Avx2,
              RowRunner runner = {});
  ~CStabilizer();
  CStabilizer(const CStabilizer&) = delete;
  CStabilizer& operator=(const CStabilizer&) = delete;

  /// The delay that its format and settings ask for.
  std::int32_t DelayFrames() const;

  /// Takes the next frame. `CanDeliver` is false before.
  void Push(const ConstPicture& frame);

  /// No frame follows: what is held can be delivered.
  void End();

  /// True when the oldest frame held has seen all frames that it depends on.
  bool CanDeliver() const;

  /// Writes the oldest frame, stabilized, to `out` (planes of the output format, which overlap no frame that
  /// is held), and gives the frame back.
  FrameReport Deliver(const Picture& out);

  /// Gives the oldest frame back without drawing it. All others come out as if it had been drawn, but for a
  /// kept background, which lacks it.
  FrameReport Skip();

 private:
  struct Stream;
  std::unique_ptr<Stream> m_pStream;
};

}  // namespace precise
