#pragma once

#include <algorithm>
#include <string>
#include <string_view>

#include "fuzz/target.h"

/// Chooses one of the texts between the bars.
inline std::string TextOf(Choices& choices, std::string_view texts) {
  const auto bars = static_cast<std::uint32_t>(std::ranges::count(texts, '|'));
  for (std::uint32_t i = choices.Byte() % (bars + 1); i > 0; --i) texts.remove_prefix(texts.find('|') + 1);
  return std::string(texts.substr(0, texts.find('|')));
}
