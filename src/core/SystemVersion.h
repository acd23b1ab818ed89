// Which release of the system this is, as a text, and how it compares with another. Several
// operations behave differently on older and newer releases; they all ask here. The daemon has the
// same two as operations of its own.
#pragma once

#include <string>
#include <string_view>

#include "platform/Host.h"

namespace korvane {

enum class ComparisonResult { ascending = -1, same = 0, descending = 1 };

// Compares texts with their runs of digits taken as whole numbers, so that "10.10" comes after
// "10.7". Where one text is the beginning of the other, the shorter one comes first.
[[nodiscard]] ComparisonResult compareNumerically(std::string_view left, std::string_view right);

// Without the letters, blanks and tabs at both ends: "Mac OS X 10.6 " is "10.6".
[[nodiscard]] std::string_view withoutLettersAndBlanks(std::string_view version);

// The running system's version as three numbers joined by points.
[[nodiscard]] std::string QLGetCurrentSystemString(Host& host);

// How the running system's version compares with the given one, letters and blanks around that
// aside; "same" for the empty text.
[[nodiscard]] ComparisonResult QLCompareCurrentSystemVersionWith(Host& host,
                                                                 std::string_view version);

}  // namespace korvane
