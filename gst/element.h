#pragma once

#include <gst/gst.h>

/// Registers the element `vstabilize`, which takes raw video and gives it back later, stabilized. `plugin` is
/// the one that it belongs to; null: the program itself.
gboolean RegisterElement(GstPlugin* plugin);
