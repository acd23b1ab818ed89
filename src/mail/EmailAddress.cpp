#include "mail/EmailAddress.h"

#include <re2/re2.h>

namespace korvane {

// Compiled for each question: there is one a message, and the automaton would stay in memory.
bool isEmailAddress(std::string_view text) {
    return re2::RE2::FullMatch(re2::StringPiece(text.data(), text.size()), kEscapedAddressPattern);
}

}  // namespace korvane
