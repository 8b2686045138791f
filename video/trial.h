#pragma once

#include <span>

#include "video/av.h"

/// True when sound that is copied into a file of `output`'s format can be decoded from there. Some muxers
/// accept codecs that no demuxer reads back, or that they can store only where they can seek. So `packets`,
/// the stream's first ones, are written to memory and decoded.
bool DecodesFrom(const AVFormatContext& output, const AVStream& stream, std::span<const PacketPtr> packets);
