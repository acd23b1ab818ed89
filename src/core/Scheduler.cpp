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
// When a tick follows one that failed: soon enough to miss nothing, and seldom enough that a cause
// which lasts costs little.
constexpr seconds kDelayAfterFailure{10};

}  // namespace

void KorvaneProDaemon::updateClock() {
    tickAfterFailure->disarm();
    carryOut("a tick", [this] { tick(); });
}

void KorvaneProDaemon::tick() {
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

// Each kind for itself: what keeps one from being started does not keep the others.
bool KorvaneProDaemon::startDueChecks() {
    refreshInventories(DriveProbe::none);
    carryOut("starting a usage check", [this] {
        if (booleanValue(preference(kVolumeUsageOnOff))) startDueUsageCheck();
    });
    bool goesOn = true;
    carryOut("starting a directory backup", [this, &goesOn] {
        const bool backupsMayRun = !backupDisabled &&
                                   booleanValue(preference(kDirectoryBackupOnOff)) &&
                                   !runningOnBattery();
        if (backupsMayRun) goesOn = startDueDirectoryBackup();
    });
    if (!goesOn) return false;
    carryOut("starting a SMART check", [this] {
        if (booleanValue(preference(kSmartCheckOnOff))) startDueSmartCheck();
    });
    return true;
}

void KorvaneProDaemon::goOnAfterFailure(std::string_view part, std::string_view reason) noexcept {
    armTickAfterFailure();
    try {
        logOnce.write(part, LogMessage::workFailed, {part, reason});
    } catch (const std::exception&) {
        // No memory to say so. The part is done again after the next tick and says so then.
    }
}

void KorvaneProDaemon::armTickAfterFailure() noexcept { tickAfterFailure->arm(kDelayAfterFailure); }

// A tick before the delayed start would take its timer away.
void KorvaneProDaemon::tickAfterFailureIsDue() {
    const microseconds sinceBoot(machine_.clock.microsecondsSinceBoot());
    if (startupInProgress && startUpDelay(sinceBoot) > seconds(0)) {
        armTickAfterFailure();
    } else {
        updateClock();
    }
}

void KorvaneProDaemon::endFailedCheck(PropertyListArray& entries, std::size_t index,
                                      const CheckKeys& keys) {
    carryOut("ending a failed check", [&] {
        Dictionary* const entry = index < entries.size() ? entries[index].dictionary() : nullptr;
        if (!entry) return;
        // A warning that was given stays noted.
        if (entryStatus(*entry, keys) == kStatusRunning) {
            setEntryStatus(*entry, keys, kStatusNotExamined);
        }
        setExecutionTime(*entry, keys,
                         addInterval(machine_.clock.now(), executionInterval(*entry, keys)));
        (void)savePreferences();  // the check ends here either way
    });
}

void KorvaneProDaemon::startDueUsageCheck() {
    const auto index = usageCheckToStart(volumeArray, machine_.clock.now());
    if (!index) return;
    // Before the status: an entry that is marked as running and does not run would wait for ever.
    stepTimer_usage =
        machine_.runLoop.startTimer(seconds(0), Repeat::once, [this, started = *index] {
            carryOutCheck("a usage check", volumeArray, started, kUsageKeys,
                          [&] { volumeUsageCheck(started); });
        });
    VolumeEntry entry(*volumeArray[*index].dictionary());
    // A warning that has been given stays noted, or it would be given again.
    if (entry.usageStatus() != kStatusFailing) entry.setUsageStatus(kStatusRunning);
}

// Two backups never run together: one that falls due meanwhile is put off a little at a time.
bool KorvaneProDaemon::startDueDirectoryBackup() {
    const Time now = machine_.clock.now();
    const auto index = dueDirectoryBackup(volumeArray, now);
    backupActive = index.has_value();
    if (!index) return true;
    VolumeEntry entry(*volumeArray[*index].dictionary());
    if (entry.directoryStatus() == kStatusRunning) {
        return !isDirectoryBackupStranded() || giveUpDirectoryBackup(*index);
    }
    if (directoryActive) {
        entry.setDirectoryStatus(kStatusWaiting);
        entry.setExecutionTimeDirectory(now + kBackupDeferral);
        return savePreferences();
    }
    stepTimer_backup =
        machine_.runLoop.startTimer(seconds(0), Repeat::once, [this, started = *index] {
            carryOutCheck("a directory backup", volumeArray, started, kDirectoryKeys,
                          [&] { directoryBackup(started); });
        });
    entry.setDirectoryStatus(kStatusRunning);
    return true;
}

void KorvaneProDaemon::startDueSmartCheck() {
    const DueSmartCheck due = dueSmartCheck(driveArray, machine_.clock.now());
    smartActive = due.isAnyDue;
    if (!due.toStart) return;
    stepTimer_smart =
        machine_.runLoop.startTimer(seconds(0), Repeat::once, [this, started = *due.toStart] {
            carryOutCheck("a SMART check", driveArray, started, kSmartKeys,
                          [&] { smartCheck(started); });
        });
    DriveEntry(*driveArray[*due.toStart].dictionary()).setSmartStatus(kStatusRunning);
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

// At once, so that a daemon that ends now leaves nothing that is due years ahead.
void KorvaneProDaemon::clockDidStep(microseconds step) {
    moveDueTimes(volumeArray, driveArray, machine_.clock.now(), step);
    // Its removal ends the daemon at the next tick.
    if (machine_.fileSystem.isFolder(kSupportFolder)) writePreferences();
    // What was not moved is nearer now, or further away.
    applicationWillBecomeActive();
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
