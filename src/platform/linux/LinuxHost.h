// What the machine says of itself: the system's version from os-release.
#pragma once

#include <string>
#include <string_view>

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

  private:
    SystemVersion version_;
};

}  // namespace korvane
