// The SMART facility of drives on Linux: ATA drives, behind a USB bridge too, by commands passed
// through the SCSI layer; NVMe drives by their health log. Statuses are the system's error numbers,
// whichever way a right is missing being told as kDriveNotPermitted.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/SmartInterface.h"
#include "platform/linux/DriveCommands.h"

namespace korvane {

// What a drive has answered for as long as it is attached: what it is not asked again while it
// rests.
struct DriveMemory {
    bool isEnabled = false;
    bool keepsAttributes = false;
    std::optional<IdentifyData> identified;
    bool hasToldItsStatus = false;
};

// Opens the device file and, of an ATA drive, asks whether it rests: a drive that does not answer
// that cannot be opened, so that one that hangs costs its time limit once. A bridge that does not
// know the question is taken for awake.
[[nodiscard]] SmartOpening openAtaSmart(DriveCommands& commands, const std::string& path,
                                        std::shared_ptr<DriveMemory> memory);
// An NVMe drive has its SMART always on, and answers without waking.
[[nodiscard]] SmartOpening openNvmeSmart(DriveCommands& commands, const std::string& path);

}  // namespace korvane
