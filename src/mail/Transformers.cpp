#include "mail/Transformers.h"

#include <algorithm>

#include "mail/Base64.h"

namespace korvane {

namespace {

bool isASCII(std::string_view text) {
    return std::all_of(text.begin(), text.end(),
                       [](char byte) { return static_cast<unsigned char>(byte) < 0x80; });
}

}  // namespace

std::optional<std::string> QLBase64StringTransformer::transformedValue(
    std::string_view base64Text) {
    return base64DecodedString(base64Text);
}

std::optional<std::string> QLBase64StringTransformer::reverseTransformedValue(
    std::string_view text) {
    return base64EncodedString(text);
}

std::optional<std::string> QLBase64StringTransformer::base64EncodedString(std::string_view text) {
    if (!isASCII(text)) return std::nullopt;
    return NewBase64Encode(text, LineSeparation::on);
}

std::optional<std::string> QLBase64StringTransformer::base64DecodedString(std::string_view text) {
    if (!isASCII(text)) return std::string{};
    std::string bytes = NewBase64Decode(text);
    if (!isASCII(bytes)) return std::nullopt;
    return bytes;
}

std::optional<PropertyList> QLEmailArrayValueTransformer::transformedValue(
    const PropertyList* value) {
    if (value == nullptr) return std::nullopt;
    if (const PropertyListArray* const array = value->array()) {
        std::vector<std::string> pieces;
        for (const PropertyList& piece : *array) pieces.push_back(stringValue(&piece));
        return stringFromArray(pieces);
    }
    PropertyListArray array;
    for (std::string& piece : arrayFromCommaDelimetedString(stringValue(value))) {
        array.emplace_back(std::move(piece));
    }
    return array;
}

std::optional<PropertyList> QLEmailArrayValueTransformer::reverseTransformedValue(
    const PropertyList* value) {
    return transformedValue(value);
}

std::vector<std::string> QLEmailArrayValueTransformer::arrayFromCommaDelimetedString(
    std::string_view text) {
    std::vector<std::string> pieces(1);
    for (const char character : text) {
        if (character == ',') {
            pieces.emplace_back();
        } else if (character != ' ') {
            pieces.back() += character;
        }
    }
    return pieces;
}

std::string QLEmailArrayValueTransformer::stringFromArray(const std::vector<std::string>& array) {
    std::string text;
    for (std::size_t index = 0; index < array.size(); ++index) {
        if (index > 0) text += ", ";
        text += array[index];
    }
    return text;
}

}  // namespace korvane
