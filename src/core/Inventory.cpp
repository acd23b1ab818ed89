// The inventories in the preferences, brought in line with the machine.

#include "core/DefaultPreferences.h"
#include "core/KorvaneProDaemon.h"
#include "storage/DriveInventory.h"
#include "storage/VolumeInventory.h"

namespace korvane {

void KorvaneProDaemon::updateDrivePreferences(DriveProbe probe) {
    const DrivePassOutcome outcome =
        refreshDriveEntries(machine_.deviceRegistry, probe, driveArray, machine_.clock.now());
    for (const std::string& path : outcome.outOfReach) logLackOfRights(path);
    if (outcome.changed) writePreferences();
}

void KorvaneProDaemon::updateVolumePreferences() {
    const VolumePassSettings settings{
        .now = machine_.clock.now(),
        .systemVersionAgainst10_7 = static_cast<int>(compareCurrentSystemVersionWith("10.7")),
        .rootSaveDisabled = rootSaveDisabled,
        .directoryBackupLocations = preference(kDirectoryBackupLocations)};
    if (refreshVolumeEntries(machine_.deviceRegistry, machine_.volumes, machine_.fileSystem,
                             volumeArray, settings)) {
        writePreferences();
    }
}

void KorvaneProDaemon::refreshInventories(DriveProbe probe) {
    carryOut("the inventory of drives", [this, probe] { updateDrivePreferences(probe); });
    carryOut("the inventory of volumes", [this] { updateVolumePreferences(); });
}

}  // namespace korvane
