#pragma once

#include <gst/gst.h>

#include "host/options.h"

/// What the element's properties ask for.
struct Properties {
  Options options;             ///< of the stream
  bool skipsLate = true;       ///< draws no frame that comes too late
  bool postsMessages = false;  ///< one for each frame
};

/// Gives the class its properties, numbered from 1.
void InstallProperties(GObjectClass* object);

/// Sets the property; true where the options change by it. Throws UsageError.
bool SetProperty(Properties& properties, guint id, const GValue& value);

void GetProperty(const Properties& properties, guint id, GValue& value);
