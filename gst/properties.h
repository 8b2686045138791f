#pragma once

#include <gst/gst.h>

#include "host/options.h"

/// The values of the element's properties.
struct Properties {
  Options options;             ///< of the engine
  bool skipsLate = true;       ///< frames that would come too late are not drawn
  bool postsMessages = false;  ///< about each frame
};

/// Gives the class its properties, numbered from 1.
void InstallProperties(GObjectClass* object);

/// Sets the property; true when it is one of the options. Throws UsageError.
bool SetProperty(Properties& properties, guint id, const GValue& value);

void GetProperty(const Properties& properties, guint id, GValue& value);
