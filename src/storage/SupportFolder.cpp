#include "storage/SupportFolder.h"

#include <algorithm>
#include <cstddef>

namespace korvane {

namespace {

// Escapes have the form that addresses on the web have: readable, and no name has them by chance.
constexpr char kEscapedSlash[] = "%2F";
constexpr char kEscapedDot[] = "%2E";
constexpr char kEscapedDots[] = "%2E%2E";
// Stands for a name without any part of its own.
constexpr char kEscapedNothing[] = "%";

std::string escapedDrivePart(std::string_view text) {
    std::string escaped;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '/') {
            escaped += kEscapedSlash;
        } else if (text.substr(i, 2) == "..") {
            escaped += kEscapedDots;
            ++i;
        } else {
            escaped += text[i];
        }
    }
    return escaped;
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

std::string driveFolder(std::string_view model, std::string_view serial) {
    return std::string(kSupportFolder) + '/' + escapedDrivePart(model) + " - " +
           escapedDrivePart(serial);
}

}  // namespace korvane
