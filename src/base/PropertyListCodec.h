// Reads and writes the XML form of property lists (document type "PropertyList-1.0"). Strict on
// input: UTF-8 only (a byte-order mark is allowed), no entities of the document's own, a limit on
// depth, nothing after the root. Never consults the locale.
#pragma once

#include <string>
#include <string_view>

#include "base/PropertyList.h"
#include "base/Result.h"

namespace korvane {

// Deeper containers are refused on reading: enough for any settings, little enough for any stack.
inline constexpr int kPropertyListDepthLimit = 128;

// Parses a whole document. The error names the line and what was wrong.
[[nodiscard]] Result<PropertyList> parsePropertyList(std::string_view text);

// The document for the value, ending in a line feed, with one tab a level and keys in order.
// Characters that XML 1.0 cannot carry are left out; a carriage return becomes "&#13;".
[[nodiscard]] std::string formatPropertyList(const PropertyList& value);

}  // namespace korvane
