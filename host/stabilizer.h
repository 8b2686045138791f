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

/// One stream through the stabilizer: frames go in, and come out half a smoothing window later.
class Stabilizer {
 public:
  virtual ~Stabilizer() = default;

  /// Where the next frame is to be put: padded, bottom-up. Valid until the next call of `Process`.
  virtual std::uint8_t* InputFrame() = 0;

  /// Takes the frame that was put there, or the newest one again. Returns the frame that comes out, valid
  /// until the next call, or nothing while the delay line fills. Throws WorkError and std::bad_alloc.
  virtual std::optional<StabilizedFrame> Process(bool repeatNewest) = 0;

  /// Ends the stream. Throws WorkError.
  virtual void Finish() = 0;
};

/// How output frames lie in the buffer that input frames of size `frame` come in.
struct OutputLayout {
  OutputLayout(const StabilizerSettings& settings, FrameSize frame);

  FrameSize size;
  std::ptrdiff_t pitchBytes;
  std::ptrdiff_t inputBytes;
  std::ptrdiff_t bufferBytes;  ///< more than `inputBytes` where cropped rows run past an input frame

  /// Fills the bytes beyond the input frame with the background. Cropped rows may reach there, and the engine
  /// never writes them.
  void FillTail(std::uint8_t* buffer) const;

 private:
  std::array<std::uint8_t, 3> m_background;
};
