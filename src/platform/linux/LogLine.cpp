#include "platform/linux/LogLine.h"

#include <cstddef>

namespace korvane {

namespace {

// How many bytes of a well-formed UTF-8 character stand at the front; 0 when none does. Overlong
// forms, surrogates and values past U+10FFFF are not well-formed (Unicode, table 3-7).
std::size_t characterLength(std::string_view text) {
    const auto byte = [&text](std::size_t at) -> unsigned {
        return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U;
    };
    const auto continues = [&byte](std::size_t at) { return (byte(at) & 0xC0U) == 0x80U; };
    const unsigned first = byte(0);
    const unsigned second = byte(1);
    if (first < 0x80) return 1;
    if (first >= 0xC2 && first <= 0xDF) return continues(1) ? 2 : 0;
    if (first >= 0xE0 && first <= 0xEF) {
        if ((first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F)) return 0;
        return continues(1) && continues(2) ? 3 : 0;
    }
    if (first >= 0xF0 && first <= 0xF4) {
        if ((first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F)) return 0;
        return continues(1) && continues(2) && continues(3) ? 4 : 0;
    }
    return 0;
}

// C0, DEL, and C1 in its two-byte form: some terminals obey U+009B as they obey ESC [.
bool isControl(std::string_view character) {
    const auto first = static_cast<unsigned char>(character[0]);
    if (character.size() == 1) return first < 0x20 || first == 0x7F;
    return first == 0xC2 && static_cast<unsigned char>(character[1]) < 0xA0;
}

void appendEscaped(std::string& line, char byte) {
    constexpr char kDigits[] = "0123456789abcdef";
    if (byte == '\n') {
        line += "\\n";
    } else if (byte == '\r') {
        line += "\\r";
    } else if (byte == '\t') {
        line += "\\t";
    } else {
        const auto value = static_cast<unsigned char>(byte);
        line += "\\x";
        line += kDigits[value >> 4U];
        line += kDigits[value & 0xFU];
    }
}

}  // namespace

std::string escapedForLog(std::string_view text) {
    std::string line;
    line.reserve(text.size());
    while (!text.empty()) {
        const std::size_t length = characterLength(text);
        const std::string_view character = text.substr(0, length == 0 ? 1 : length);
        if (length == 0 || isControl(character)) {
            for (const char byte : character) appendEscaped(line, byte);
        } else {
            line += character;
        }
        text.remove_prefix(character.size());
    }
    return line;
}

}  // namespace korvane
