#pragma once

#include <string>
#include <string_view>

/// Replaces each control character by a question mark: U+0000 … U+001F and U+007F … U+009F. Single bytes 0x80
/// … 0x9F are replaced, too, because terminals without UTF-8 obey them.
std::string WithoutControls(std::string_view text);
