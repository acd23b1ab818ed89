#include "platform/linux/ControlArguments.h"

#include <cerrno>

namespace korvane {

int readControlWord(sd_bus_message* message, std::string& word) {
    const char* text = nullptr;
    const int result = sd_bus_message_read_basic(message, SD_BUS_TYPE_STRING, &text);
    if (result <= 0) return result < 0 ? result : -ENXIO;
    word = text;
    return 0;
}

int readControlPaths(sd_bus_message* message, std::vector<std::string>& paths) {
    if (const int entered = sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, "s");
        entered <= 0) {
        return entered < 0 ? entered : -ENXIO;
    }
    const char* text = nullptr;
    int result = 0;
    while ((result = sd_bus_message_read_basic(message, SD_BUS_TYPE_STRING, &text)) > 0) {
        if (paths.size() == kMostPathsOfACall) return -E2BIG;
        paths.emplace_back(text);
    }
    if (result < 0) return result;
    const int left = sd_bus_message_exit_container(message);
    return left < 0 ? left : 0;
}

}  // namespace korvane
