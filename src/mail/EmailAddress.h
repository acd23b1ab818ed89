// What counts as an e-mail address: whether a login name can stand as the sender of a message.
#pragma once

#include <string_view>

namespace korvane {

// The two forms of one pattern, for the whole of a text. Some matchers take "&" and "^" in a set of
// characters for operators, so the form that is asked here escapes them; the plain one says the
// same to all others.
inline constexpr char kPlainAddressPattern[] =
    "[a-zA-Z0-9!#$%&'*+/=?^_`{|}~-]+(?:\\.[a-zA-Z0-9!#$%&'*+/=?^_`{|}~-]+)*@"
    "(?:[a-zA-Z0-9](?:[a-zA-Z0-9-]*[a-zA-Z0-9])?\\.)+[a-zA-Z0-9](?:[a-zA-Z0-9-]*[a-zA-Z0-9])?";
inline constexpr char kEscapedAddressPattern[] =
    "[a-zA-Z0-9!#$%'*+/=?\\&_\\^`{|}~-]+(?:\\.[a-zA-Z0-9!#$%'*+/=?\\&_\\^`{|}~-]+)*@"
    "(?:[a-zA-Z0-9](?:[a-zA-Z0-9-]*[a-zA-Z0-9])?\\.)+[a-zA-Z0-9](?:[a-zA-Z0-9-]*[a-zA-Z0-9])?";

// Whether the whole text is an address: atoms joined by points, "@", a host name of two labels at
// least, all of it ASCII.
[[nodiscard]] bool isEmailAddress(std::string_view text);

}  // namespace korvane
