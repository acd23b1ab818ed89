#include "storage/SupportFolder.h"

#include <algorithm>
#include <cstddef>

namespace korvane {

namespace {

// Escapes have the form that addresses on the web have, which people can read.
constexpr char kEscapedDot[] = "%2E";
constexpr char kEscapedDots[] = "%2E%2E";
constexpr char kEscapedSlash[] = "%2F";
// Stands for a name without any part of its own.
constexpr char kEscapedNothing[] = "%";

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
    return escaped(model) + " - " + escaped(serial);
}

std::string driveFolder(std::string_view model, std::string_view serial) {
    return std::string(kSupportFolder) + '/' + driveFolderName(model, serial);
}

}  // namespace korvane
