#include "platform/linux/LinuxHost.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <optional>

#include "platform/linux/SmallFile.h"

namespace korvane {

namespace {

constexpr SystemVersion kModernSystem{11, 0, 0};

// The value of VERSION_ID, which os-release(5) allows in single, double or no quotes; the last
// assignment counts, as in the shell that the format is taken from.
std::string_view versionIdOf(std::string_view text) {
    constexpr std::string_view kKey = "VERSION_ID=";
    std::string_view value;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        if (line.starts_with(kKey)) value = line.substr(kKey.size());
    }
    if (!value.empty() && (value.front() == '"' || value.front() == '\'')) value.remove_prefix(1);
    return value;
}

}  // namespace

SystemVersion versionFromOsRelease(std::string_view text) {
    std::string_view rest = versionIdOf(text);
    std::array<int, 3> numbers{};
    for (int& number : numbers) {
        int parsed = 0;
        const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), parsed);
        if (error != std::errc{} || parsed < 0) break;
        number = parsed;
        rest.remove_prefix(static_cast<std::size_t>(end - rest.data()));
        if (!rest.starts_with('.')) break;
        rest.remove_prefix(1);
    }
    if (numbers[0] < kModernSystem.major) return kModernSystem;
    return {numbers[0], numbers[1], numbers[2]};
}

LinuxHost::LinuxHost(const std::string& rootFolder) {
    // os-release(5): the one in /etc goes before the vendor's.
    std::optional<std::string> text = readSmallFile(rootFolder + "/etc/os-release");
    if (!text) text = readSmallFile(rootFolder + "/usr/lib/os-release");
    version_ = versionFromOsRelease(text.value_or(""));
}

SystemVersion LinuxHost::systemVersion() { return version_; }

}  // namespace korvane
