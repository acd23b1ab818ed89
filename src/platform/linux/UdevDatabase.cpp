#include "platform/linux/UdevDatabase.h"

#include <algorithm>
#include <charconv>

#include "platform/linux/SmallFile.h"

namespace korvane {

UdevProperties parseUdevRecord(std::string_view text) {
    UdevProperties properties;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        const std::size_t equals = line.find('=');
        if (line.starts_with("E:") && equals != std::string_view::npos && equals > 2) {
            properties.insert_or_assign(std::string{line.substr(2, equals - 2)},
                                        std::string{line.substr(equals + 1)});
        }
    }
    return properties;
}

std::string decodeUdevText(std::string_view value) {
    std::string text;
    text.reserve(value.size());
    for (std::size_t i = 0; i < value.size(); ++i) {
        unsigned byte = 0;
        const char* const digits = value.data() + i + 2;
        if (i + 3 < value.size() && value[i] == '\\' && value[i + 1] == 'x' &&
            std::from_chars(digits, digits + 2, byte, 16).ptr == digits + 2) {
            text += static_cast<char>(byte);
            i += 3;
        } else {
            text += value[i];
        }
    }
    return text;
}

UdevProperties UdevDatabase::propertiesOf(DeviceNumber block) const {
    const auto text = readSmallFile(folder_ + "/b" + std::to_string(block.major) + ":" +
                                    std::to_string(block.minor));
    return text ? parseUdevRecord(*text) : UdevProperties{};
}

std::string udevValue(const UdevProperties& properties, std::string_view key) {
    const auto found = properties.find(key);
    return found == properties.end() ? std::string{} : found->second;
}

}  // namespace korvane
