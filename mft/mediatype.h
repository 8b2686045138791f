#pragma once

#include <windows.h>

#include <cstdint>
#include <mfobjects.h>
#include <optional>

/// Frame size of a media type; a top-down picture has a negative height.
std::optional<SIZE> ReadFrameSize(IMFMediaType* type);
HRESULT WriteFrameSize(IMFMediaType* type, SIZE size);

/// Makes the available type `index`, which has a major type and a subtype only. The only one is 0, 24-bit RGB
/// video; other indices give MF_E_NO_MORE_TYPES.
HRESULT MakeAvailableType(DWORD index, IMFMediaType** type);

/// S_OK for 24-bit RGB video. MF_E_INVALIDMEDIATYPE for another type and for null, the attribute's error
/// where the major type or the subtype is missing.
HRESULT CheckVideoType(IMFMediaType* type);

/// Makes a new type with all attributes of `source`.
HRESULT CopyMediaType(IMFMediaType* source, IMFMediaType** copy);

/// The properties of the input type that streaming needs.
struct ImageParameters {
  std::uint32_t width = 0, height = 0;  ///< pixels; positive for a top-down picture, too
  std::uint32_t BitsImage = 0;          ///< bits per pixel
  std::uint32_t sampleSize = 0;         ///< bytes of one input frame

  /// Bytes of a frame with `BitsImage` bits a pixel and rows padded to 4 bytes, limited to UINT64_MAX.
  std::uint64_t FrameBytes(std::uint32_t frameWidth, std::uint32_t frameHeight) const;
  std::uint64_t FrameBytes() const { return FrameBytes(width, height); }
  /// The same for media types and stream descriptions, limited to UINT32_MAX.
  std::uint32_t SampleBytes(std::uint32_t frameWidth, std::uint32_t frameHeight) const;

  /// Reads the parameters of `type`. Without a frame size, `width` and `height` become 0. Without a format
  /// block, `BitsImage` becomes 0 and `sampleSize` keeps the value from the type before. With one,
  /// `sampleSize` is MF_MT_SAMPLE_SIZE, or keeps its value where that is missing; if it is 0 then, it becomes
  /// the image size of the format block, or if that is 0, too, is computed.
  void Read(IMFMediaType* type);
};
