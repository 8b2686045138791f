#pragma once

#include <span>

#include "video/av.h"

/// True when a stream of sound that is copied into such a file decodes from there: some muxers take more than
/// any reader can make sense of, some only where they can seek. `packets` are the stream's first ones.
bool DecodesFrom(const AVFormatContext& output, const AVStream& stream, std::span<const PacketPtr> packets);
