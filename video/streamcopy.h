#pragma once

#include "video/av.h"

class Input;
class Output;
class Range;

// What goes from one file to the other as it is.

/// The codec's parameters, with the tag that the other format has for it. A negative error code on failure.
int CopyParameters(const AVStream& from, AVStream& to, const AVOutputFormat* format = nullptr);

/// Tags, language, disposition.
void CopyTags(const AVStream& from, AVStream& to, bool isEncodedAnew);

/// The file's own tags, and the chapters of the range.
void CopyFileTags(const Input& input, const Range& range, Output& output);

bool HoldsChapters(const AVOutputFormat& format);
