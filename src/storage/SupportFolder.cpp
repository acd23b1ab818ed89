#include "storage/SupportFolder.h"

#include <algorithm>
#include <cstddef>

namespace korvane {

namespace {

// Escapes have the form that addresses on the web have, which people can read.
constexpr char kEscapedDot[] = "%2E";
constexpr char kEscapedDots[] = "%2E%2E";
// Stands for a name without any part of its own.
constexpr char kEscapedNothing[] = "%";

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

}  // namespace korvane
