// How a drive service is told by the devices that it hangs on: the model and serial number under
// their many keys. The inventory and the SMART check walk those devices by different rules, which
// must not be made one: what the check finds on the service itself the inventory does not look at.
#pragma once

#include <optional>
#include <string>

#include "base/PropertyList.h"
#include "platform/DeviceRegistry.h"
#include "storage/DriveEntry.h"

namespace korvane {

// The drives' class in the device registry.
inline constexpr char kDriveClass[] = "IOBlockStorageDevice";

// Whether the drive claims to have SMART, by its own properties.
[[nodiscard]] bool isSmartCapable(const Dictionary& driveProperties);
// Whether it could not be asked if it has, for want of rights.
[[nodiscard]] bool isSmartOutOfReach(const Dictionary& driveProperties);
// Whether one of the devices above the service is a disk image.
[[nodiscard]] bool isDiskImage(DeviceRegistry& registry, ServiceId drive);

// What the inventory calls a drive. The values of the last device looked at: a model and a serial
// number from different devices leave only the later one. Nothing when the devices end before both
// have been seen.
[[nodiscard]] std::optional<DriveIdentity> inventoryIdentity(DeviceRegistry& registry,
                                                             ServiceId drive);

// What the SMART check calls a drive: the nearest of each kind, the drive itself counted.
struct CheckedDrive {
    ServiceId service;
    DriveIdentity identity;
    std::string connection;  // "ATA" when nothing says
    std::string path;        // of its medium's device file; empty when it has none
};
[[nodiscard]] CheckedDrive checkedDrive(DeviceRegistry& registry, ServiceId service);
// The path of the first service below a drive that has one, going down by first children; empty
// where none has.
[[nodiscard]] std::string devicePathBelow(DeviceRegistry& registry, ServiceId service);

}  // namespace korvane
