#pragma once

#include <cstdio>
#include <string>

/// Prints lines of text for the user. Control characters, as from a file's name or tags, are replaced.
class Notes {
 public:
  Notes(std::FILE* messages, bool isVerbose) : m_pMessages(messages), m_isVerbose(isVerbose) {}

  bool IsVerbose() const { return m_isVerbose; }

  /// Prints always.
  void Warn(const std::string& text) const;

  /// Prints on a terminal, or where --verbose asks for it.
  void Tell(const std::string& text) const;

 private:
  std::FILE* m_pMessages;
  bool m_isVerbose;
};
