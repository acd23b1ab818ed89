// The machine as a whole.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace korvane {

// The numbers of the running system's version.
struct SystemVersion {
    int major = 0;
    int minor = 0;
    int bugFix = 0;
};

class Host {
  public:
    virtual ~Host() = default;

    [[nodiscard]] virtual SystemVersion systemVersion() = 0;
    // The system's name and version in words, for people.
    [[nodiscard]] virtual std::string systemVersionText() = 0;

    // The name by which the machine introduces itself.
    [[nodiscard]] virtual std::string hostName() = 0;
    // The names it is known by; the one that ends in ".local" is its own on its link.
    [[nodiscard]] virtual std::vector<std::string> names() = 0;
    // Its addresses, in pairs: a link-local address with "%" and the interface, then an address of
    // that same interface. Ethernet and Wi-Fi interfaces, called "en0", "en1" ... in the machine's
    // own order, stand before all others.
    [[nodiscard]] virtual std::vector<std::string> addresses() = 0;

    // The short name of the user at the console; nothing when nobody is.
    [[nodiscard]] virtual std::optional<std::string> consoleUserName() = 0;
    // The full name in the user database, the whole field as it is, by the short name; nothing when
    // there is no such user.
    [[nodiscard]] virtual std::optional<std::string> fullUserName(const std::string& name) = 0;
    // The full name of the user whose process this is, never empty.
    [[nodiscard]] virtual std::string ownFullUserName() = 0;
};

}  // namespace korvane
