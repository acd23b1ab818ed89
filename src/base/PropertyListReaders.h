// The two readers behind parsePropertyList, told apart for the tests that hold one to the other.
#pragma once

#include <optional>
#include <string_view>

#include "base/PropertyList.h"
#include "base/Result.h"

namespace korvane {

// Reads documents in the plain form that all writers of property lists use: the usual header, tags
// without anything in them, no comments, no references but the usual ones. Five times as fast as
// the other reader. Nothing means that the document has another form or is wrong: ask the other.
[[nodiscard]] std::optional<PropertyList> parsePlainPropertyList(std::string_view text);

// Reads documents of any form, and says what is wrong with one.
[[nodiscard]] Result<PropertyList> parseAnyPropertyList(std::string_view text);

}  // namespace korvane
