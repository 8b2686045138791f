#include "video/notes.h"

#include "host/printable.h"

void Notes::Warn(const std::string& text) const {
  std::fprintf(m_pMessages, "stabilize: %s\n", WithoutControls(text).c_str());
}

void Notes::Tell(const std::string& text) const {
  if (m_isVerbose) Warn(text);
}
