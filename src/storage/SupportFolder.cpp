#include "storage/SupportFolder.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace korvane {

namespace {

// Escapes have the form that addresses on the web have, which people can read.
constexpr char kEscapedDot[] = "%2E";
constexpr char kEscapedDots[] = "%2E%2E";
constexpr char kEscapedSlash[] = "%2F";
// Stands for a name without any part of its own.
constexpr char kEscapedNothing[] = "%";

// NAME_MAX of limits.h. What USB devices may say of themselves is longer.
constexpr std::size_t kLongestName = 255;
// A name that is cut ends in so many digits that tell it from others with the same beginning.
constexpr std::size_t kDigestDigits = 16;

// FNV-1a, 64 bits: the same on every machine and in every version.
std::uint64_t digestOf(std::string_view text) {
    std::uint64_t digest = 0xcbf29ce484222325U;
    for (const char c : text) {
        digest = (digest ^ static_cast<unsigned char>(c)) * 0x100000001b3U;
    }
    return digest;
}

// Such a text as a part of a folder's name.
std::string escaped(std::string_view text) {
    std::string name;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '/') {
            name += kEscapedSlash;
        } else if (text.substr(i, 2) == "..") {
            name += kEscapedDots;
            ++i;
        } else {
            name += text[i];
        }
    }
    return name;
}

}  // namespace

std::string volumeFolderName(std::string_view displayName) {
    std::string name;
    std::size_t begin = 0;
    while (begin <= displayName.size()) {
        const std::size_t end = std::min(displayName.find('/', begin), displayName.size());
        const std::string_view part = displayName.substr(begin, end - begin);
        begin = end + 1;
        if (part.empty()) continue;
        if (!name.empty()) name += '/';
        if (part == ".") {
            name += kEscapedDot;
        } else if (part == "..") {
            name += kEscapedDots;
        } else {
            name += part;
        }
    }
    return name.empty() ? kEscapedNothing : name;
}

std::string volumeFolder(std::string_view displayName) {
    return std::string(kSupportFolder) + '/' + volumeFolderName(displayName);
}

std::string driveFolderName(std::string_view model, std::string_view serial) {
    std::string name = escaped(model) + " - " + escaped(serial);
    if (name.size() <= kLongestName) return name;
    std::string ending(kDigestDigits, '0');
    std::uint64_t digest = digestOf(name);
    for (char& digit : ending) {
        digit = "0123456789abcdef"[digest & 0xfU];
        digest >>= 4U;
    }
    name.resize(kLongestName - kDigestDigits - 1);
    // No part of a character stays behind.
    while (!name.empty() && (static_cast<unsigned char>(name.back()) & 0x80U) != 0) name.pop_back();
    return name + ' ' + ending;
}

std::string driveFolder(std::string_view model, std::string_view serial) {
    return std::string(kSupportFolder) + '/' + driveFolderName(model, serial);
}

}  // namespace korvane
