#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "engine/stabilizersettings.h"

/// A stabilized picture, bottom-up.
struct StabilizedFrame {
  const std::uint8_t* pixels;
  std::ptrdiff_t pitchBytes;  ///< from one row to the next
};

/// One stream through the classic engine. A frame comes out half a smoothing window after it went in.
class Stabilizer {
 public:
  virtual ~Stabilizer() = default;

  /// The buffer for the next input frame, bottom-up with padded rows. Valid until the next call of `Process`.
  virtual std::uint8_t* InputFrame() = 0;

  /// Processes the frame in `InputFrame()` or, with `repeatNewest`, the newest frame again. Returns the
  /// output frame, valid until the next call, or nothing while the delay line fills. Throws WorkError and
  /// std::bad_alloc.
  virtual std::optional<StabilizedFrame> Process(bool repeatNewest) = 0;

  /// Ends the stream. Throws WorkError.
  virtual void Finish() = 0;
};

/// The layout of output frames in their buffer, for input frames of size `frame`.
struct OutputLayout {
  OutputLayout(const StabilizerSettings& settings, FrameSize frame);

  FrameSize size;
  std::ptrdiff_t pitchBytes;
  std::ptrdiff_t inputBytes;
  std::ptrdiff_t bufferBytes;  ///< more than `inputBytes` where a cropped frame needs more

  /// Fills the bytes after the first `inputBytes` with the background. A cropped frame may reach into these
  /// bytes, but the engine never writes them.
  void FillTail(std::uint8_t* buffer) const;

 private:
  std::array<std::uint8_t, 3> m_background;
};
