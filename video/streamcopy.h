#pragma once

#include "video/av.h"

class Input;
class Output;
class Range;

// Copies what the output takes over from the input unchanged.

/// Copies the codec's parameters and the side data. The codec's tag is kept where `format` has no
/// other one for this codec. Returns a negative error code on failure.
int CopyParameters(const AVStream& from, AVStream& to, const AVOutputFormat* format = nullptr);

/// Copies the stream's tags and disposition. `isEncodedAnew` leaves out tags that describe the old coding.
void CopyTags(const AVStream& from, AVStream& to, bool isEncodedAnew);

/// Copies the file's tags and the chapters of the range.
void CopyFileTags(const Input& input, const Range& range, Output& output);

bool HoldsChapters(const AVOutputFormat& format);
