#pragma once

#include <optional>
#include <span>

#include "host/settings.h"
#include "video/av.h"

// How the libraries' pixel formats lie in memory, and which is nearest to another.

/// The formats that mean full range by their name alone, as those of the same layout.
AVPixelFormat WithoutRange(AVPixelFormat format);
bool MeansFullRange(AVPixelFormat format);

/// What the frame says, or its format. Grey that says nothing has full range, as everyone takes it.
AVColorRange RangeOf(const AVFrame& frame);

/// A format as the precise engine takes it; nothing when it cannot.
std::optional<precise::PictureFormat> EngineFormat(AVPixelFormat format, int width, int height);

bool IsRgb(AVPixelFormat format);

/// True for a palette and for RGB of less than eight bits, which the scaler takes apart exactly only on the
/// way over `kAllColours`.
bool HasFewColours(AVPixelFormat format);
constexpr AVPixelFormat kAllColours = AV_PIX_FMT_BGRA;

int BitsOf(AVPixelFormat format);

/// True where a chroma sample at the far edge would stand for less than its columns and rows.
bool CutsChroma(AVPixelFormat format, int width, int height);

/// The candidate that loses least; AV_PIX_FMT_NONE where there is none.
AVPixelFormat Nearest(AVPixelFormat source, std::span<const AVPixelFormat> candidates);

/// All that the engine takes.
std::span<const AVPixelFormat> EngineFormats();
