// The Base64 codec of the stored mail settings: the standard alphabet of RFC 4648, section 4, with
// the length rules that the settings were always read by. It differs from a strict codec on odd
// input, and which user names count as addresses depends on just that.
#pragma once

#include <string>
#include <string_view>

namespace korvane {

enum class LineSeparation {
    off,
    on  // CR LF after every 64 characters but the last
};

// Both take and give any bytes; neither fails.
[[nodiscard]] std::string NewBase64Encode(std::string_view bytes, LineSeparation separation);
// Bytes outside the alphabet, padding among them, are passed over. Each group of up to four symbols
// gives one byte less than it has symbols; a last group without any, as after a trailing line
// break, takes one byte off the result, if there is one.
[[nodiscard]] std::string NewBase64Decode(std::string_view text);

}  // namespace korvane
