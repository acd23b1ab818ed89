// What the machine says of itself: the system's version from os-release, its names, the addresses
// of its interfaces, and its users from the user database.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Host.h"

namespace korvane {

// The numbers of VERSION_ID in the text of an os-release file, missing ones 0. A version below 11
// and a system without one (a rolling release) answer 11.0.0: every Linux system counts as modern.
[[nodiscard]] SystemVersion versionFromOsRelease(std::string_view text);

class LinuxHost final : public Host {
  public:
    // `rootFolder` stands before /etc and /usr/lib: empty for the machine's own.
    explicit LinuxHost(const std::string& rootFolder = "");

    // Read once: a system is not replaced under a running process.
    [[nodiscard]] SystemVersion systemVersion() override;
    // os-release's PRETTY_NAME.
    [[nodiscard]] std::string systemVersionText() override;
    [[nodiscard]] std::string hostName() override;
    // The host name and, from its first part, the name under which the machine's own link knows it
    // (RFC 6762). A machine that was never named has none.
    [[nodiscard]] std::vector<std::string> names() override;
    [[nodiscard]] std::vector<std::string> addresses() override;
    // The owner of the active session of the first seat.
    [[nodiscard]] std::optional<std::string> consoleUserName() override;
    [[nodiscard]] std::optional<std::string> fullUserName(const std::string& name) override;
    // The first part of the field, or the short name where that is empty.
    [[nodiscard]] std::string ownFullUserName() override;

  private:
    SystemVersion version_;
    std::string versionText_;
};

}  // namespace korvane
