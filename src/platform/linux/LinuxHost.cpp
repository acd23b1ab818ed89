#include "platform/linux/LinuxHost.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstddef>
#include <optional>

#include "platform/linux/ConsoleSession.h"
#include "platform/linux/MountTable.h"
#include "platform/linux/NetworkAddresses.h"
#include "platform/linux/SmallFile.h"

namespace korvane {

namespace {

constexpr SystemVersion kModernSystem{11, 0, 0};

// The value of an assignment such as "VERSION_ID=", which os-release(5) allows in single, double or
// no quotes; the last one counts, as in the shell that the format is taken from.
std::string_view assignedValue(std::string_view text, std::string_view assignment) {
    std::string_view value;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        if (line.starts_with(assignment)) value = line.substr(assignment.size());
    }
    if (!value.empty() && (value.front() == '"' || value.front() == '\'')) {
        const char quote = value.front();
        value.remove_prefix(1);
        value = value.substr(0, value.find(quote));
    }
    return value;
}

// An entry of the user database and the memory that it points into.
struct UserEntry {
    passwd entry{};
    std::vector<char> memory;
};

// Calls one of getpwnam_r and getpwuid_r with as much memory as it asks for.
template <typename LookUp>
std::optional<UserEntry> lookUpUser(LookUp&& lookUp) {
    UserEntry user;
    passwd* found = nullptr;
    for (std::size_t size = 1024; size <= std::size_t{1} << 20U; size *= 4) {
        user.memory.resize(size);
        const int error = lookUp(&user.entry, user.memory.data(), size, &found);
        if (error == ERANGE) continue;
        if (error != 0 || found == nullptr) return std::nullopt;
        return user;
    }
    return std::nullopt;
}

std::optional<UserEntry> userOfNumber(uid_t number) {
    return lookUpUser([number](passwd* entry, char* memory, std::size_t size, passwd** found) {
        return ::getpwuid_r(number, entry, memory, size, found);
    });
}

// The user database may hold any bytes.
std::string fullNameField(const UserEntry& user) {
    return textOfBytes(user.entry.pw_gecos == nullptr ? "" : user.entry.pw_gecos);
}

}  // namespace

SystemVersion versionFromOsRelease(std::string_view text) {
    std::string_view rest = assignedValue(text, "VERSION_ID=");
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
    versionText_ = assignedValue(text.value_or(""), "PRETTY_NAME=");
    if (versionText_.empty()) versionText_ = "Linux";  // os-release(5)'s own default
}

SystemVersion LinuxHost::systemVersion() { return version_; }

std::string LinuxHost::systemVersionText() { return versionText_; }

std::string LinuxHost::hostName() {
    std::array<char, HOST_NAME_MAX + 1> name{};
    if (::gethostname(name.data(), name.size() - 1) != 0 || name[0] == '\0') return "localhost";
    return name.data();
}

std::vector<std::string> LinuxHost::names() {
    const std::string name = hostName();
    const std::string first = name.substr(0, name.find('.'));
    if (first == "localhost" || first == "(none)") return {name};
    return {name, first + ".local"};
}

std::vector<std::string> LinuxHost::addresses() { return addressPairs(interfacesOfThisMachine()); }

std::optional<std::string> LinuxHost::consoleUserName() {
    const std::optional<uid_t> number = consoleUser();
    const std::optional<UserEntry> user = number ? userOfNumber(*number) : std::nullopt;
    if (!user) return std::nullopt;
    return user->entry.pw_name;
}

std::optional<std::string> LinuxHost::fullUserName(const std::string& name) {
    const std::optional<UserEntry> user =
        lookUpUser([&name](passwd* entry, char* memory, std::size_t size, passwd** found) {
            return ::getpwnam_r(name.c_str(), entry, memory, size, found);
        });
    if (!user) return std::nullopt;
    return fullNameField(*user);
}

std::string LinuxHost::ownFullUserName() {
    const std::optional<UserEntry> user = userOfNumber(::geteuid());
    if (!user) return std::to_string(::geteuid());
    // passwd(5): commas part the field, and the name is the first part.
    const std::string field = fullNameField(*user);
    const std::string name = field.substr(0, field.find(','));
    return name.empty() ? user->entry.pw_name : name;
}

}  // namespace korvane
