#include "platform/linux/BlockDevices.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace korvane {

std::optional<BlockDevice> BlockDevices::describe(DeviceNumber number) const {
    const auto path = sysfs_.blockDevicePath(number);
    if (!path) {
        return std::nullopt;
    }
    BlockDevice device;
    device.name = lastComponent(*path);
    device.isReadOnly = sysfs_.attribute(*path + "/ro") == "1";
    auto removable = sysfs_.attribute(*path + "/removable");
    if (!removable) {
        // Only whole disks have the attribute; a partition's folder lies in its disk's.
        removable = sysfs_.attribute(parentFolder(*path) + "/removable");
    }
    device.isRemovable = removable == "1";
    const std::string uuid = udevValue(udev_.propertiesOf(number), "ID_FS_UUID");
    if (!uuid.empty()) {
        device.fileSystemIdentity = "uuid:" + uuid;
    } else if (const auto mapping = sysfs_.attribute(*path + "/dm/uuid");
               mapping && !mapping->empty()) {
        device.fileSystemIdentity = "mapping:" + *mapping;
    } else {
        device.fileSystemIdentity = "device:" + device.name;
    }
    return device;
}

std::optional<DeviceNumber> BlockDevices::numberOfNode(const std::string& path) {
    struct stat status {};
    if (!path.starts_with("/dev/") || ::stat(path.c_str(), &status) != 0 ||
        !S_ISBLK(status.st_mode)) {
        return std::nullopt;
    }
    return DeviceNumber{major(status.st_rdev), minor(status.st_rdev)};
}

}  // namespace korvane
