// What counts as an e-mail address: whether a login name can stand as the sender of a message.
#pragma once

#include <string_view>

namespace korvane {

// Whether the whole text is an address: atoms joined by points, "@", a host name of two labels at
// least, all of it ASCII.
[[nodiscard]] bool isEmailAddress(std::string_view text);

}  // namespace korvane
