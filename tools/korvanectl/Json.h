// Values as JSON text (RFC 8259), for programs that read korvanectl's output.
#pragma once

#include <string>
#include <string_view>

#include "base/PropertyList.h"

namespace korvane::ctl {

// The text as a JSON string with its quotation marks. Bytes that are not UTF-8 become U+FFFD, so
// that the document can always be read.
[[nodiscard]] std::string jsonString(std::string_view text);

// The value, indented by two blanks a level, ending in a line feed. A date becomes a text in
// ISO 8601 form, bytes a text of hexadecimal digits, a real that is not finite null.
[[nodiscard]] std::string formatJson(const PropertyList& value);

}  // namespace korvane::ctl
