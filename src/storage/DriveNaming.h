// How a drive service is told by the devices that it hangs on: the model and serial number under
// their many keys. The inventory and the SMART check walk those devices by different rules, which
// must not be made one: what the check finds on the service itself the inventory does not look at.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/PropertyList.h"
#include "platform/DeviceRegistry.h"
#include "storage/DriveEntry.h"

namespace korvane {

// The drives' class in the device registry.
inline constexpr char kDriveClass[] = "IOBlockStorageDevice";

// Whether the drive claims to have SMART, by its own properties.
[[nodiscard]] bool isSmartCapable(const Dictionary& driveProperties);
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
// The drives with SMART at these paths that the check calls so, in the registry's order. All passes
// of a check share this one reading: the tree does not change while one runs. What lies behind the
// last of the paths is not looked at, so that many drives cost no more than a few.
[[nodiscard]] std::vector<CheckedDrive> checkedDrives(DeviceRegistry& registry,
                                                      std::string_view model,
                                                      std::string_view serial,
                                                      std::span<const std::string> paths);

}  // namespace korvane
