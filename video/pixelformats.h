#pragma once

#include <optional>
#include <span>

#include "precise/picture.h"
#include "video/av.h"

// What the libraries' pixel formats are: their layout in memory, their range, and which is nearest to
// another.

/// Formats such as yuvj420p mean full range by their name. WithoutRange gives the format of the same layout,
/// such as yuv420p; other formats stay.
AVPixelFormat WithoutRange(AVPixelFormat format);
bool MeansFullRange(AVPixelFormat format);

/// The range that the frame's format or tag tells. Untagged grey has full range, by convention.
AVColorRange RangeOf(const AVFrame& frame);

/// The precise engine's description of a format; nothing when the engine cannot take it.
std::optional<precise::PictureFormat> EngineFormat(AVPixelFormat format, int width, int height);

bool IsRgb(AVPixelFormat format);

/// True for formats without colour.
bool IsGrey(AVPixelFormat format);

/// True for palettes and for RGB of fewer than eight bits. The scaler converts these to YUV exactly only by
/// way of `kTrueColour`.
bool HasFewColours(AVPixelFormat format);
constexpr AVPixelFormat kTrueColour = AV_PIX_FMT_BGRA;

int BitsOf(AVPixelFormat format);

/// True when width or height is no multiple of a chroma sample's.
bool CutsChroma(AVPixelFormat format, int width, int height);

/// The candidate that loses least of `source`; AV_PIX_FMT_NONE without candidates.
AVPixelFormat Nearest(AVPixelFormat source, std::span<const AVPixelFormat> candidates);

/// All formats that the precise engine takes, except those of full range by name.
std::span<const AVPixelFormat> EngineFormats();
