#include "gst/element.h"

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, vstabilize, "Takes the shake out of video",
                  RegisterElement, VSTABILIZE_VERSION, GST_LICENSE_UNKNOWN, PACKAGE, PACKAGE)
