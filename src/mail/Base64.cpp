#include "mail/Base64.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace korvane {

namespace {

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
// 48 bytes make a line of 64 characters.
constexpr std::size_t kBytesInALine = 48;
constexpr std::uint8_t kNoSymbol = 0xFF;

constexpr std::array<std::uint8_t, 256> kSymbols = [] {
    std::array<std::uint8_t, 256> symbols{};
    symbols.fill(kNoSymbol);
    for (std::size_t value = 0; value < kAlphabet.size(); ++value) {
        symbols[static_cast<unsigned char>(kAlphabet[value])] = static_cast<std::uint8_t>(value);
    }
    return symbols;
}();

// The two characters of every twelve bits: half of the look-ups of one character each.
constexpr std::array<std::array<char, 2>, 4096> kPairs = [] {
    std::array<std::array<char, 2>, 4096> pairs{};
    for (std::size_t bits = 0; bits < pairs.size(); ++bits) {
        pairs[bits] = {kAlphabet[bits >> 6], kAlphabet[bits & 0x3F]};
    }
    return pairs;
}();

std::uint32_t byteAt(std::string_view bytes, std::size_t index) {
    return static_cast<unsigned char>(bytes[index]);
}

char* encodeGroup(std::uint32_t threeBytes, char* out) {
    std::memcpy(out, kPairs[threeBytes >> 12].data(), 2);
    std::memcpy(out + 2, kPairs[threeBytes & 0xFFF].data(), 2);
    return out + 4;
}

char* encodeLine(std::string_view bytes, char* out) {
    std::size_t index = 0;
    for (; index + 3 <= bytes.size(); index += 3) {
        out = encodeGroup(
            byteAt(bytes, index) << 16 | byteAt(bytes, index + 1) << 8 | byteAt(bytes, index + 2),
            out);
    }
    const std::size_t left = bytes.size() - index;
    if (left == 0) return out;
    std::uint32_t group = byteAt(bytes, index) << 16;
    if (left == 2) group |= byteAt(bytes, index + 1) << 8;
    out = encodeGroup(group, out);
    std::fill(out - 3 + left, out, '=');
    return out;
}

// Whole groups of four symbols side by side, which is nearly all that there is; where it stops.
std::size_t decodeWholeGroups(std::string_view text, std::size_t index, char*& out) {
    for (; index + 4 <= text.size(); index += 4) {
        const std::uint32_t a = kSymbols[byteAt(text, index)];
        const std::uint32_t b = kSymbols[byteAt(text, index + 1)];
        const std::uint32_t c = kSymbols[byteAt(text, index + 2)];
        const std::uint32_t d = kSymbols[byteAt(text, index + 3)];
        if ((a | b | c | d) == kNoSymbol) break;
        const std::uint32_t group = a << 18 | b << 12 | c << 6 | d;
        *out++ = static_cast<char>(group >> 16);
        *out++ = static_cast<char>(group >> 8);
        *out++ = static_cast<char>(group);
    }
    return index;
}

}  // namespace

std::string NewBase64Encode(std::string_view bytes, LineSeparation separation) {
    const std::size_t characters = (bytes.size() + 2) / 3 * 4;
    const bool lines = separation == LineSeparation::on;
    std::string text(characters + (lines ? characters / 64 * 2 : 0), '\0');
    const std::size_t lineSize = lines ? kBytesInALine : std::max<std::size_t>(bytes.size(), 1);
    char* out = text.data();
    for (std::size_t start = 0; start < bytes.size(); start += lineSize) {
        if (start > 0) {
            *out++ = '\r';
            *out++ = '\n';
        }
        out = encodeLine(bytes.substr(start, lineSize), out);
    }
    text.resize(static_cast<std::size_t>(out - text.data()));
    return text;
}

std::string NewBase64Decode(std::string_view text) {
    std::string bytes((text.size() + 3) / 4 * 3, '\0');
    char* out = bytes.data();
    std::size_t index = 0;
    while ((index = decodeWholeGroups(text, index, out)) < text.size()) {
        std::uint32_t group = 0;
        std::size_t symbols = 0;
        for (; index < text.size() && symbols < 4; ++index) {
            const std::uint8_t symbol = kSymbols[byteAt(text, index)];
            if (symbol == kNoSymbol) continue;
            group |= std::uint32_t{symbol} << (18 - 6 * symbols);
            ++symbols;
        }
        if (symbols == 0) {
            if (out != bytes.data()) --out;
            break;
        }
        for (std::size_t byte = 0; byte + 1 < symbols; ++byte) {
            *out++ = static_cast<char>(group >> (16 - 8 * byte));
        }
    }
    bytes.resize(static_cast<std::size_t>(out - bytes.data()));
    return bytes;
}

}  // namespace korvane
