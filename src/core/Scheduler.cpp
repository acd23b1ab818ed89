// The scheduler: a tick starts at most one due check of each kind and then arms a single timer for
// the moment at which the next one falls due. It keeps no schedule of its own; the entries do.

#include "core/DefaultPreferences.h"
#include "core/KorvaneProDaemon.h"
#include "core/Schedule.h"
#include "storage/DriveEntry.h"
#include "storage/DriveInventory.h"
#include "storage/SupportFolder.h"
#include "storage/VolumeEntry.h"

namespace korvane {

using std::chrono::microseconds;
using std::chrono::seconds;

namespace {

// How long a backup waits before it looks again whether another one still runs.
constexpr seconds kBackupDeferral{5};

}  // namespace

void KorvaneProDaemon::updateClock() {
    if (!machine_.fileSystem.exists(kSupportFolder)) {
        quitWithoutSupportFolder();
        return;
    }
    // At rest until a reload.
    if (!daemonIsOn()) return;

    // The permission to keep the emergency volume mounted ends with the main application, even when
    // its quitting was missed.
    if (ignoreMountedOstrand && !isKorvaneProRunning()) {
        ignoreMountedOstrand = false;
        armOstrandTimer(seconds(5));
    }

    // While a mail is on its way nothing else is begun.
    if (!emailSendIsBusy() && !startDueChecks()) return;

    outTimer.reset();
    clockTimer.reset();
    setOutTimer();
}

bool KorvaneProDaemon::startDueChecks() {
    updateDrivePreferences(DriveProbe::none);
    updateVolumePreferences();
    if (booleanValue(preference(kVolumeUsageOnOff))) startDueUsageCheck();
    const bool backupsMayRun =
        !backupDisabled && booleanValue(preference(kDirectoryBackupOnOff)) && !runningOnBattery();
    if (backupsMayRun && !startDueDirectoryBackup()) return false;
    if (booleanValue(preference(kSmartCheckOnOff))) startDueSmartCheck();
    return true;
}

void KorvaneProDaemon::startDueUsageCheck() {
    const auto index = usageCheckToStart(volumeArray, machine_.clock.now());
    if (!index) return;
    VolumeEntry entry(*volumeArray[*index].dictionary());
    // A warning that has been given stays noted, or it would be given again.
    if (entry.usageStatus() != kStatusFailing) entry.setUsageStatus(kStatusRunning);
    stepTimer_usage = machine_.runLoop.startTimer(
        seconds(0), Repeat::once, [this, started = *index] { volumeUsageCheck(started); });
}

// Two backups never run together: one that falls due meanwhile is put off a little at a time.
bool KorvaneProDaemon::startDueDirectoryBackup() {
    const Time now = machine_.clock.now();
    const auto index = dueDirectoryBackup(volumeArray, now);
    backupActive = index.has_value();
    if (!index) return true;
    VolumeEntry entry(*volumeArray[*index].dictionary());
    if (entry.directoryStatus() == kStatusRunning) return true;
    if (directoryActive) {
        entry.setDirectoryStatus(kStatusWaiting);
        entry.setExecutionTimeDirectory(now + kBackupDeferral);
        return savePreferences();
    }
    entry.setDirectoryStatus(kStatusRunning);
    stepTimer_backup = machine_.runLoop.startTimer(
        seconds(0), Repeat::once, [this, started = *index] { directoryBackup(started); });
    return true;
}

void KorvaneProDaemon::startDueSmartCheck() {
    const DueSmartCheck due = dueSmartCheck(driveArray, machine_.clock.now());
    smartActive = due.isAnyDue;
    if (!due.toStart) return;
    DriveEntry(*driveArray[*due.toStart].dictionary()).setSmartStatus(kStatusRunning);
    stepTimer_smart = machine_.runLoop.startTimer(
        seconds(0), Repeat::once, [this, started = *due.toStart] { smartCheck(started); });
}

void KorvaneProDaemon::setOutTimer() {
    clockTimer.reset();
    outTimer.reset();
    if (!machine_.fileSystem.exists(kSupportFolder)) {
        quitWithoutSupportFolder();
        return;
    }
    if (!daemonIsOn()) return;

    const PropertyList* usage = preference(kVolumeUsageOnOff);
    const PropertyList* directory = preference(kDirectoryBackupOnOff);
    const PropertyList* smart = preference(kSmartCheckOnOff);
    // On battery power ticks come from events alone.
    if (!usage || !directory || !smart || runningOnBattery()) return;

    const CheckSwitches switches{.usage = booleanValue(usage),
                                 .directory = booleanValue(directory),
                                 .smart = booleanValue(smart)};
    const auto interval = outTimerInterval(volumeArray, driveArray, switches, machine_.clock.now());
    outTimer = machine_.runLoop.startTimer(std::chrono::duration_cast<microseconds>(interval),
                                           Repeat::once, [this] { updateClock(); });
}

bool KorvaneProDaemon::runningOnBattery() { return isOnBattery(machine_.powerSources.states()); }

bool KorvaneProDaemon::daemonIsOn() const {
    const PropertyList* daemonOn = preference(kDaemonOn);
    return !daemonOn || booleanValue(daemonOn);
}

void KorvaneProDaemon::armClockTimer(microseconds delay) {
    clockTimer = machine_.runLoop.startTimer(delay, Repeat::once, [this] { updateClock(); });
}

}  // namespace korvane
