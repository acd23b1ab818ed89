// Which bytes are UTF-8, and which of those XML can carry: what the reader and the writer of
// property lists must agree on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace korvane {

struct Utf8Sequence {
    // The bytes of the character, or 0 where there is none.
    std::size_t length = 0;
    // How far to go on: past the character, or past the bytes that are to be replaced together,
    // which are the longest beginning of a character.
    std::size_t skip = 1;
};

// What stands at the beginning of a text that is not empty.
inline Utf8Sequence utf8SequenceAt(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned lead = byte(0);
    if (lead < 0x80) return {1, 1};
    std::size_t length = 0;
    // RFC 3629, section 4: which second bytes are legal after which first ones.
    unsigned low = 0x80;
    unsigned high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) low = 0xA0;
        if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;
    } else {
        return {0, 1};
    }
    for (std::size_t i = 1; i < length; ++i) {
        if (i == text.size() || byte(i) < low || byte(i) > high) return {0, i};
        low = 0x80;
        high = 0xBF;
    }
    return {length, length};
}

// Whether XML 1.0 has the character that this one sequence stands for: neither a control character
// but tab, line feed and carriage return, nor U+FFFE or U+FFFF.
inline bool isXmlCharacter(std::string_view sequence) {
    if (sequence.size() == 1) {
        const auto byte = static_cast<unsigned char>(sequence[0]);
        return byte >= 0x20 || byte == '\t' || byte == '\n' || byte == '\r';
    }
    return sequence != "\xEF\xBF\xBE" && sequence != "\xEF\xBF\xBF";
}

// Whether each of the eight bytes is an ASCII character that stands for itself in XML text: not
// below the space, none of "&<>". False now and then where that would be true.
inline bool areAllPlain(std::uint64_t bytes) {
    constexpr std::uint64_t kOnes = 0x0101010101010101U;
    constexpr std::uint64_t kHighs = 0x8080808080808080U;
    // The high bit of a byte of the result is set where the byte was zero, and perhaps above one.
    const auto zeros = [](std::uint64_t v) { return (v - kOnes) & ~v; };
    const std::uint64_t belowSpace = (bytes - kOnes * 0x20) & ~bytes;
    // "<" and ">" differ in one bit.
    const std::uint64_t special =
        zeros(bytes ^ (kOnes * '&')) | zeros((bytes ^ (kOnes * '<')) & ~(kOnes * 2));
    return ((bytes | belowSpace | special) & kHighs) == 0;
}

}  // namespace korvane
