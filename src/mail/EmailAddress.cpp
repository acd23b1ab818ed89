#include "mail/EmailAddress.h"

#include <re2/re2.h>

namespace korvane {

namespace {

constexpr char kAddressPattern[] =
    "[a-zA-Z0-9!#$%'*+/=?\\&_\\^`{|}~-]+(?:\\.[a-zA-Z0-9!#$%'*+/=?\\&_\\^`{|}~-]+)*@"
    "(?:[a-zA-Z0-9](?:[a-zA-Z0-9-]*[a-zA-Z0-9])?\\.)+[a-zA-Z0-9](?:[a-zA-Z0-9-]*[a-zA-Z0-9])?";

}  // namespace

// Compiled for each question: there is one a message, and the automaton would stay in memory.
bool isEmailAddress(std::string_view text) {
    return re2::RE2::FullMatch(re2::StringPiece(text.data(), text.size()), kAddressPattern);
}

}  // namespace korvane
