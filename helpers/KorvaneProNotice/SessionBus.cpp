#include "KorvaneProNotice/SessionBus.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace korvane {

Result<std::string> sessionBusAddress(uid_t user) {
    const char* const own = ::getuid() == user ? std::getenv("DBUS_SESSION_BUS_ADDRESS") : nullptr;
    if (own != nullptr && *own != '\0') return std::string{own};
    const std::string socket = "/run/user/" + std::to_string(user) + "/bus";
    struct stat status {};
    if (::lstat(socket.c_str(), &status) == 0 && S_ISSOCK(status.st_mode) &&
        status.st_uid == user) {
        return "unix:path=" + socket;
    }
    return Error{"user " + std::to_string(user) + " has no session bus"};
}

Result<std::monostate> becomeUser(uid_t user) {
    if (::getuid() == user && ::geteuid() == user) return std::monostate{};
    passwd entry{};
    passwd* found = nullptr;
    std::vector<char> buffer(16 * 1024);  // sysconf(_SC_GETPW_R_SIZE_MAX) is a hint of 1 kB
    if (::getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr) {
        return Error{"user " + std::to_string(user) + " is unknown"};
    }
    if (::initgroups(entry.pw_name, entry.pw_gid) != 0 ||
        ::setresgid(entry.pw_gid, entry.pw_gid, entry.pw_gid) != 0 ||
        ::setresuid(user, user, user) != 0) {
        return Error{std::string{"cannot become user "} + entry.pw_name + ": " +
                     std::strerror(errno)};
    }
    return std::monostate{};
}

}  // namespace korvane
