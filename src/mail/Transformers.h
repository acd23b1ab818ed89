// Between the stored and the shown form of the mail settings: user name and password are stored as
// Base64 text, the recipients as one comma-delimited text. "No value" stands for what has no form
// on the other side.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/PropertyList.h"

namespace korvane {

class QLBase64StringTransformer {
  public:
    // Stored to shown, and back.
    [[nodiscard]] static std::optional<std::string> transformedValue(std::string_view base64Text);
    [[nodiscard]] static std::optional<std::string> reverseTransformedValue(std::string_view text);

    // Text beyond ASCII has no bytes to encode: no value.
    [[nodiscard]] static std::optional<std::string> base64EncodedString(std::string_view text);
    // No value when the decoded bytes are not ASCII; a stored text beyond ASCII decodes to nothing.
    [[nodiscard]] static std::optional<std::string> base64DecodedString(std::string_view text);
};

class QLEmailArrayValueTransformer {
  public:
    // The same in both directions: the kind of the value decides. An array becomes a text, anything
    // else an array.
    [[nodiscard]] static std::optional<PropertyList> transformedValue(const PropertyList* value);
    [[nodiscard]] static std::optional<PropertyList> reverseTransformedValue(
        const PropertyList* value);

    // Drops every space and splits at each comma; empty pieces stay.
    [[nodiscard]] static std::vector<std::string> arrayFromCommaDelimetedString(
        std::string_view text);
    // Joined by a comma and a space.
    [[nodiscard]] static std::string stringFromArray(const std::vector<std::string>& array);
};

}  // namespace korvane
