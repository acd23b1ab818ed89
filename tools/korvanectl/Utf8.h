// One character at a time out of UTF-8 text that may be broken.
#pragma once

#include <cstddef>
#include <string_view>

namespace korvane::ctl {

struct Utf8Character {
    char32_t code = 0;
    std::size_t length = 0;  // in bytes; 0 when the text does not begin with a whole character
};

// The first character of the text. Overlong forms, surrogates and codes past U+10FFFF are none
// (RFC 3629).
[[nodiscard]] Utf8Character firstUtf8Character(std::string_view text);

}  // namespace korvane::ctl
