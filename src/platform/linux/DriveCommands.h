// The two calls that a drive is reached with. Everything that is said to a drive goes through here,
// so that a test can be the drive.
#pragma once

#include <string>

#include "platform/linux/UniqueFd.h"

namespace korvane {

class DriveCommands {
  public:
    virtual ~DriveCommands() = default;

    // 0, or errno with the descriptor closed. Never waits for a medium.
    [[nodiscard]] virtual int open(const std::string& path, UniqueFd& descriptor) = 0;
    // What ioctl(2) answers, or minus errno.
    [[nodiscard]] virtual int control(int descriptor, unsigned long request, void* argument) = 0;
};

// The kernel's own. One for the whole process; it keeps nothing.
[[nodiscard]] DriveCommands& kernelDriveCommands();

}  // namespace korvane
