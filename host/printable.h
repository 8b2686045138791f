#pragma once

#include <string>
#include <string_view>

/// The text with a question mark for each control character: U+0000 … U+001F and U+007F … U+009F, the latter
/// also as single bytes, which a terminal that does not read UTF-8 obeys.
std::string WithoutControls(std::string_view text);
