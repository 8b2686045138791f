#pragma once

#include <gst/gst.h>

/// Makes the element `vstabilize` known, as one of `plugin`, or of the program itself where that is null: raw
/// video in, the same stabilized and later out.
gboolean RegisterElement(GstPlugin* plugin);
