#pragma once

#include <cstdio>
#include <string>

/// Lines for the person at the terminal, in which no control character of a file's name or tag is left.
class Notes {
 public:
  Notes(std::FILE* messages, bool isTalkative) : m_pMessages(messages), m_isTalkative(isTalkative) {}

  bool IsTalkative() const { return m_isTalkative; }

  /// What must be known.
  void Warn(const std::string& text) const;

  /// What is good to know: on a terminal, or where it was asked for.
  void Tell(const std::string& text) const;

 private:
  std::FILE* m_pMessages;
  bool m_isTalkative;
};
