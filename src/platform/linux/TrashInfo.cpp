#include "platform/linux/TrashInfo.h"

#include <algorithm>

namespace korvane {

namespace {

int hexadecimal(char digit) {
    if (digit >= '0' && digit <= '9') return digit - '0';
    if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
    return -1;
}

}  // namespace

std::optional<std::string> originInTrashInfo(std::string_view text) {
    constexpr std::string_view kPath = "Path=";
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        if (!line.starts_with(kPath)) continue;
        line.remove_prefix(kPath.size());
        std::string path;
        for (std::size_t i = 0; i < line.size(); ++i) {
            const int high = line[i] == '%' && i + 2 < line.size() ? hexadecimal(line[i + 1]) : -1;
            const int low = high >= 0 ? hexadecimal(line[i + 2]) : -1;
            const char decoded = low >= 0 ? static_cast<char>(high * 16 + low) : line[i];
            if (decoded == '\0') return std::nullopt;
            path += decoded;
            if (low >= 0) i += 2;
        }
        if (path.empty()) return std::nullopt;
        return path;
    }
    return std::nullopt;
}

}  // namespace korvane
