// The drive inventory: brings the entries of `driveArray` in line with the drives that are attached
// now. A pass over exactly the state that it is handed; it reads no settings and writes none.
#pragma once

#include <string>
#include <vector>

#include "base/Calendar.h"
#include "base/PropertyList.h"
#include "platform/DeviceRegistry.h"

namespace korvane {

enum class DriveProbe {
    none,  // the registry's word that a drive has SMART is enough
    smart  // the drive must let its SMART be switched on and say that it is
};

struct DrivePassOutcome {
    // An entry is new or has gone: the entries are to be saved.
    bool changed = false;
    // The device paths of drives that could not be asked for want of rights.
    std::vector<std::string> outOfReach = {};
};

// Adds an entry for each new drive that has SMART, keeps the entries of those that are still there
// with all their settings, and deletes the others: all of them when the registry cannot be read.
// Elements that are no dictionaries stay where they are. Drives of equal model and serial number
// share the first of their entries. A drive that does not answer is passed over, and the others go
// on.
[[nodiscard]] DrivePassOutcome refreshDriveEntries(DeviceRegistry& registry, DriveProbe probe,
                                                   PropertyListArray& driveArray, Time now);

}  // namespace korvane
