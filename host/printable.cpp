#include "host/printable.h"

#include <algorithm>

namespace {

bool IsContinuation(char byte) { return (byte & '\xC0') == '\x80'; }

/// The length of the UTF-8 character that begins with `lead`; 1 if none can.
std::size_t CharacterBytes(unsigned char lead) {
  if (lead < 0xC2 || lead > 0xF4) return 1;
  return lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
}

bool IsControl(std::string_view character) {
  if (character.size() > 2) return false;
  const auto last = static_cast<unsigned char>(character.back());
  const bool isC0 = last < 0x20 || last == 0x7F, isC1 = last >= 0x80 && last < 0xA0;
  return character.size() == 1 ? isC0 || isC1 : isC1 && character[0] == '\xC2';
}

}  // namespace

std::string WithoutControls(std::string_view text) {
  std::string shown;
  while (!text.empty()) {
    const std::size_t bytes = CharacterBytes(static_cast<unsigned char>(text[0]));
    std::string_view character = text.substr(0, bytes);
    if (character.size() < bytes || !std::ranges::all_of(character.substr(1), IsContinuation))
      character = text.substr(0, 1);
    shown += IsControl(character) ? "?" : character;
    text.remove_prefix(character.size());
  }
  return shown;
}
