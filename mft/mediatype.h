#pragma once

#include <windows.h>

#include <cstdint>
#include <mfobjects.h>
#include <optional>

/// Frame size of a media type; a top-down picture has a negative height.
std::optional<SIZE> ReadFrameSize(IMFMediaType* type);
HRESULT WriteFrameSize(IMFMediaType* type, SIZE size);

/// A partial type for index 0, the only one: 24-bit RGB video. MF_E_NO_MORE_TYPES beyond.
HRESULT MakeAvailableType(DWORD index, IMFMediaType** type);

/// Whether a type is uncompressed 24-bit RGB video; MF_E_INVALIDMEDIATYPE when it is something else.
HRESULT CheckVideoType(IMFMediaType* type);

/// A new type with every item of another.
HRESULT CopyMediaType(IMFMediaType* source, IMFMediaType** copy);

/// What the streaming needs to know of the input type.
struct ImageParameters {
  std::uint32_t width = 0, height = 0;  ///< pixels; the height without its sign
  std::uint32_t BitsImage = 0;          ///< bits per pixel
  std::uint32_t sampleSize = 0;         ///< bytes of one input frame

  /// Bytes of a frame of that many pixels whose rows are padded to 4 bytes.
  std::uint64_t FrameBytes(std::uint32_t frameWidth, std::uint32_t frameHeight) const;
  std::uint64_t FrameBytes() const { return FrameBytes(width, height); }
  /// The same in the 32 bits of media types and stream descriptions: the largest number where it does not
  /// fit.
  std::uint32_t SampleBytes(std::uint32_t frameWidth, std::uint32_t frameHeight) const;

  /// Reads the parameters of `type`, as far as it has them. A type without a sample size leaves that of the
  /// type before.
  void Read(IMFMediaType* type);
};
