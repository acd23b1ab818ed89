// The volume inventory: brings the entries of `volumeArray`, the volumes' folders below the support
// folder and the markers in them in line with what is mounted now. A pass over exactly the state
// that it is handed; it reads no settings and writes none.
#pragma once

#include "base/Calendar.h"
#include "base/PropertyList.h"
#include "platform/DeviceRegistry.h"
#include "platform/FileSystem.h"
#include "platform/Volumes.h"

namespace korvane {

// What a pass is to know beside the machine and the entries.
struct VolumePassSettings {
    Time now;
    // How the running system's version compares with "10.7": -1 when it is older, else 0 or 1. From
    // that version on, recovery volumes are passed over by their names.
    int systemVersionAgainst10_7 = 0;
    // No backup is kept on the start-up volume: every marker says OFF.
    bool rootSaveDisabled = false;
    // The setting "directoryBackupLocations", or null. Elements that are no texts are passed over.
    const PropertyList* directoryBackupLocations = nullptr;
};

// Adds an entry for each volume that is new and can be monitored, revives those that are back,
// marks those that are gone as not available, and never deletes one. Elements that are no
// dictionaries stay where they are. Failures on disk are ignored; the next pass tries again.
// True when the entries are to be saved at once: an entry is new, a volume has gone, or one is
// encrypted. What else changes in existing entries is saved with the next change from any cause.
//
// While nothing changes a pass costs two questions to the file system for each volume that is
// there, and one listing of the support folder.
[[nodiscard]] bool refreshVolumeEntries(DeviceRegistry& registry, Volumes& volumes,
                                        FileSystem& fileSystem, PropertyListArray& volumeArray,
                                        const VolumePassSettings& settings);

}  // namespace korvane
