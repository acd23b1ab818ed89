// The one formatter for texts that come from files (strings tables) or are handed to the system
// log. Knows "%@", "%s", "%d", "%ld", "%zd", "%.0f" and "%%", takes typed arguments, and never
// reaches printf: a format that asks for more than it is given, or for something else, shows the
// directive as it stands. An argument of the wrong kind counts as used all the same.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <variant>

namespace korvane {

using FormatArgument = std::variant<std::string_view, std::int64_t, double>;

// "%@" and "%s" take a text (a number is shown in decimal), "%d", "%ld" and "%zd" a number (a real
// is cut toward zero), "%.0f" a number rounded half to even, not-a-number as "nan".
[[nodiscard]] std::string formatText(std::string_view format,
                                     std::initializer_list<FormatArgument> arguments);

}  // namespace korvane
