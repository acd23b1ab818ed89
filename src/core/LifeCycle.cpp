// How the daemon comes up, in two stages, what it does when applications come and go, and how it
// goes down.

#include <string_view>

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

// The bundle identifiers of the applications whose end the daemon heeds. The main application's is
// a beginning: applications that belong to it extend it.
constexpr std::string_view kFinder = "com.apple.finder";
constexpr std::string_view kMainApplication = "com.quorlen.korvanepro";
// The beginning of the main application's process name; its version follows the blank.
constexpr std::string_view kMainProcess = "Korvane Pro ";

}  // namespace

KorvaneProDaemon::KorvaneProDaemon(const Machine& machine) : machine_(machine) {}

KorvaneProDaemon::~KorvaneProDaemon() {
    removeObservers();
    machine_.runLoop.setWillTerminate(nullptr);
    machine_.runLoop.setWillBecomeActive(nullptr);
    machine_.clock.setDidStep(nullptr);
}

void KorvaneProDaemon::awakeFromNib() {
    machine_.runLoop.setWillBecomeActive([this] { applicationWillBecomeActive(); });
    machine_.runLoop.setWillTerminate([this] { applicationWillTerminate(); });
    // From the first load of the settings on: due times of before are those of the clock of before.
    machine_.clock.setDidStep([this](microseconds step) {
        carryOut("following the clock", [this, step] { clockDidStep(step); });
    });
    // Without its connection, the name being taken say, the daemon still protects.
    destConnection = machine_.controlConnection.registerName(*this);

    loadPreferences();
    // Before any word can have the trash watched.
    machine_.directoryWatch.setDidFindOut([this] { didFindOut(); });
    carryOut("taking up searches", [this] { takeUpSearches(); });

    armOstrandTimer(seconds(2));

    startupInProgress = true;
    const seconds delay = startUpDelay(microseconds(machine_.clock.microsecondsSinceBoot()));
    clockTimer = machine_.runLoop.startTimer(delay, Repeat::once, [this] { doStartup(); });
    if (!smtpController) smtpController = newSmtpController();
    machine_.systemLog.write(LogMessage::started,
                             {getCurrentSystemString(), std::int64_t{delay.count()}});
}

// A part that fails leaves the parts after it alone: a start that nobody finished would leave the
// machine without observers and without a tick until the next restart.
void KorvaneProDaemon::doStartup() {
    carryOut("loading the settings", [this] { loadPreferences(); });
    refreshInventories(DriveProbe::smart);
    carryOut("watching the trash", [this] { setupTrashRetainer(false); });
    carryOut("marking entries", [this] { markNotYetExamined(); });
    carryOut("saving the settings", [this] { writePreferences(); });

    machine_.processes.setDidTerminateApplication([this](const std::string& identifier) {
        carryOut("an application's end",
                 [this, &identifier] { didTerminateApplicationNotification(identifier); });
    });
    machine_.volumes.setDidMount([this] { carryOut("a mount", [this] { volumeMountHandler(); }); });
    machine_.volumes.setDidUnmount(
        [this] { carryOut("an unmount", [this] { volumeUnmountHandler(); }); });

    carryOut("arming a tick", [this] { armClockTimer(seconds(1)); });
    startupInProgress = false;
}

// What the last run of the daemon found is not known to be so any more.
void KorvaneProDaemon::markNotYetExamined() {
    for (PropertyList& element : driveArray) {
        if (auto drive = DriveEntry::over(element)) drive->setSmartStatus(kStatusNotExamined);
    }
    for (PropertyList& element : volumeArray) {
        if (auto volume = VolumeEntry::over(element)) {
            volume->setDirectoryStatus(kStatusNotExamined);
            volume->setUsageStatus(kStatusNotExamined);
        }
    }
    areEntriesMarked = preferenceDictionary.has_value();
}

void KorvaneProDaemon::applicationWillBecomeActive() {
    if (startupInProgress) return;
    carryOut("arming a tick", [this] { armClockTimer(seconds(1)); });
    outTimer.reset();
}

// Saves nothing: the preferences are written in the course of the work alone, and a save that was
// put off is dropped.
void KorvaneProDaemon::applicationWillTerminate() {
    for (auto& slot : trashRetainerFNSubscriptionRefArray) slot.reset();
    if (directoryPipeTask && directoryPipeTask->isRunning()) abandonDirectoryBackup();
    destConnection.reset();
    removeObservers();
}

void KorvaneProDaemon::removeObservers() {
    machine_.volumes.setDidMount(nullptr);
    machine_.volumes.setDidUnmount(nullptr);
    machine_.processes.setDidTerminateApplication(nullptr);
    machine_.processes.setTaskDidTerminate(nullptr);
    machine_.directoryWatch.setDidFindOut(nullptr);
    notificationCenter.removeObserver(this);
}

void KorvaneProDaemon::didTerminateApplicationNotification(const std::string& bundleIdentifier) {
    if (bundleIdentifier == kFinder) {
        quit();
        return;
    }
    if (std::string_view(bundleIdentifier).starts_with(kMainApplication)) {
        // Its permission to keep the emergency volume mounted ends with it.
        doUnMountOstrand();
        checkForOstrand();
    }
}

bool KorvaneProDaemon::isKorvaneProRunning() {
    bool found = false;
    machine_.processes.forEachName([&](std::string_view name) {
        found = name.starts_with(kMainProcess);
        return !found;
    });
    return found;
}

void KorvaneProDaemon::watchMainApplication() {
    machine_.processes.watchApplication(kMainProcess, std::string(kMainApplication));
}

// Sent twice, once through each of the application's two names, as ever; the second send has no
// effect of its own.
void KorvaneProDaemon::quit() {
    machine_.runLoop.terminate();
    machine_.runLoop.terminate();
}

// The folder is the daemon's life line: its removal means that the suite has been removed.
void KorvaneProDaemon::quitWithoutSupportFolder() {
    machine_.systemLog.write(LogMessage::supportFolderGone, {kSupportFolder});
    quit();
}

}  // namespace korvane
