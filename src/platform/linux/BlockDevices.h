// What the volumes need to know of the block device below a file system, from sysfs and the udev
// database. No device is ever opened.
#pragma once

#include <optional>
#include <string>

#include "platform/linux/MountTable.h"
#include "platform/linux/Sysfs.h"
#include "platform/linux/UdevDatabase.h"

namespace korvane {

struct BlockDevice {
    std::string name;  // the kernel's: "sda1", "cciss!c0d0"
    bool isRemovable = false;
    bool isReadOnly = false;
    // What the file system on it is recognised by later: its UUID; where udev tells none the
    // mapping's own, else the device's name.
    std::string fileSystemIdentity;
};

class BlockDevices {
  public:
    BlockDevices(Sysfs sysfs, UdevDatabase udev)
        : sysfs_(std::move(sysfs)), udev_(std::move(udev)) {}

    // Nothing when there is no such block device (any more).
    [[nodiscard]] std::optional<BlockDevice> describe(DeviceNumber number) const;
    // The number of the device that a path below /dev leads to, links followed; nothing when it
    // leads to something else.
    [[nodiscard]] static std::optional<DeviceNumber> numberOfNode(const std::string& path);

  private:
    Sysfs sysfs_;
    UdevDatabase udev_;
};

}  // namespace korvane
