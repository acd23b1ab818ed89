// Questions to a drive's SMART facility: switch it on, is it on, and all that a check asks. Nothing
// here logs.
#pragma once

#include "platform/DeviceRegistry.h"
#include "platform/SmartInterface.h"

namespace korvane {

// What checkSMART() answers of a drive that says that its SMART is not supported or not on: no
// platform's status is below 0.
inline constexpr DriveStatus kSmartIsOff = -1;

// Switches SMART on and has the drive keep its attributes; the status of the first call that fails.
[[nodiscard]] DriveStatus enable_smart(SmartInterface& smart);
// Whether the drive's own description says that SMART is supported and on: 0, kSmartIsOff, or why
// the description could not be had.
[[nodiscard]] DriveStatus checkSMART(SmartInterface& smart);

// Opens the drive's facility, switches it on, sees that it is, and asks whether the drive says of
// itself that it is failing; the status of the first step that fails.
[[nodiscard]] SmartStatusAnswer askSmartStatus(DeviceRegistry& registry, ServiceId drive);

}  // namespace korvane
