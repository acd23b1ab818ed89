// The directory backup: has the helper write a record of one volume's folders, copies it to the
// locations that the user chose, and notes the run. Driven by the helper's end and by polls of the
// copies.

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "backup/BackupFolders.h"
#include "backup/BackupPlaces.h"
#include "backup/BackupRotation.h"
#include "core/DefaultPreferences.h"
#include "core/KorvaneProDaemon.h"
#include "storage/PathText.h"
#include "storage/Place.h"
#include "storage/SupportFolder.h"
#include "storage/VolumeEntry.h"
#include "storage/VolumeFolders.h"

namespace korvane {

namespace {

constexpr char kBackupHelper[] = "KorvaneProDirectoryBackup";
// The helper does nothing for a caller who does not know this word.
constexpr char kHelperWord[] = "quorlen";
constexpr char kCopyProgram[] = "/bin/cp";
// Copies into a folder that others may move meanwhile, with the rights of one account.
constexpr char kPlaceCopyProgram[] = "KorvaneProCopy";
constexpr std::chrono::seconds kCopyPollInterval{2};
// The emergency start-up volume is never backed up.
constexpr char kEmergencyVolumeName[] = "Ostrand";

}  // namespace

void KorvaneProDaemon::directoryBackup(std::size_t index) {
    // The array may have been reloaded since the timer was armed.
    if (index >= volumeArray.size()) return;
    const auto entry = ConstVolumeEntry::over(volumeArray[index]);
    if (!entry) return;
    FileSystem& files = machine_.fileSystem;
    if (!files.exists(kSupportFolder)) {
        // A failure shows when the volume's own folder is made.
        (void)files.createFolders(kSupportFolder, files.userName());
    }
    const std::string path = entry->volumeMountToName();
    const std::vector<std::string>& mounted = machine_.volumes.mountedLocalVolumePaths();
    if (std::find(mounted.begin(), mounted.end(), path) == mounted.end()) return;
    const std::optional<FileSystemFlags> flags = machine_.volumes.fileSystemFlags(path);
    if (!flags || !flags->isWritable) return;

    const std::string displayName = machine_.volumes.displayName(path);
    // What stands there under a name that differs in letter case alone.
    VolumeFolders(files).removeUnlisted(displayName);
    if (displayName == kEmergencyVolumeName) return;
    prepareVolumeFolder(displayName);
    launchDirectoryBackup(index, path, displayName);
}

void KorvaneProDaemon::prepareVolumeFolder(const std::string& displayName) {
    if (machine_.fileSystem.exists(volumeFolder(displayName))) {
        const Result<std::optional<Place>> place =
            openPlace(machine_.fileSystem, machine_.volumes, kSupportFolder,
                      volumeFolderName(displayName), MissingFolders::leave);
        if (!place || !*place) return;
        rotateBackups(*(*place)->folder, integerValue(preference(kDirectoryFilesToSave)),
                      machine_.clock.now());
    } else {
        VolumeFolders(machine_.fileSystem)
            .keepMarker(displayName, rootSaveDisabled ? BackupMarker::off : BackupMarker::on,
                        MissingFolder::create);
    }
}

void KorvaneProDaemon::launchDirectoryBackup(std::size_t index, const std::string& path,
                                             const std::string& displayName) {
    const std::string helper = machine_.bundle.plugIn(kBackupHelper);
    if (helper.empty()) return;
    directoryOffset = index;
    dirBackupFilePath = volumeFolder(displayName) + '/' + backupFileName(machine_.clock.now());
    directoryPipeTask = machine_.processes.launch(
        helper, {kHelperWord, dirBackupFilePath, machine_.volumes.pathBytes(path)});
    if (!directoryPipeTask) {
        dirBackupFilePath.clear();
        return;
    }
    // After all that may fail: a run that is noted and does not run would keep all others waiting.
    directoryActive = true;
    ++directoryRun;
    machine_.processes.setTaskDidTerminate([this](const Task& task) {
        const bool hasEnded = carryOut("the end of a directory backup",
                                       [&] { directoryTaskTerminateNotification(task); });
        if (!hasEnded) endFailedBackup();
    });
}

// Its copies go on. While one of them is polled, the poll ends the run.
void KorvaneProDaemon::endFailedBackup() {
    directoryPipeTask.reset();
    const bool isPolled = std::any_of(copyPolls.begin(), copyPolls.end(), [this](const auto& poll) {
        return poll.second.run == directoryRun;
    });
    if (isPolled) return;
    cpTask.reset();
    directoryActive = false;
}

void KorvaneProDaemon::directoryTaskTerminateNotification(const Task& task) {
    if (&task != directoryPipeTask.get()) return;
    machine_.processes.setTaskDidTerminate(nullptr);
    loadPreferences();
    const PropertyList* setting = preference(kDirectoryBackupLocations);
    // A copy: the preferences are taken apart while the settings copy is written.
    const PropertyListArray locations =
        setting && setting->array() ? *setting->array() : PropertyListArray{};
    for (const PropertyList& location : locations) {
        if (location.string()) copyToLocation(*location.string());
    }
    noteDirectoryBackup();
    directoryPipeTask.reset();
    if (!savePreferences()) return;
    repairPermissions(machine_.fileSystem, machine_.volumes, kSupportFolder);
    if (!cpTask) directoryActive = false;
}

// What is marked as running without running would keep the other volumes' backups waiting for ever:
// the helper could not be launched, or the volume has gone or cannot be written any more. Where the
// helper is missing nothing is noted; it waits for whoever installs it.
bool KorvaneProDaemon::isDirectoryBackupStranded() {
    return !directoryActive && !machine_.bundle.plugIn(kBackupHelper).empty();
}

bool KorvaneProDaemon::giveUpDirectoryBackup(std::size_t index) {
    VolumeEntry entry(*volumeArray[index].dictionary());
    const std::string volume = entry.volumeMountToName();
    logOnce.write("backup of " + volume, LogMessage::backupNotStarted, {volume});
    entry.setDirectoryStatus(kStatusNotExamined);
    entry.setExecutionTimeDirectory(
        addInterval(machine_.clock.now(), entry.executionIntervalDirectory()));
    return savePreferences();
}

void KorvaneProDaemon::noteDirectoryBackup() {
    if (directoryOffset >= volumeArray.size()) return;
    auto entry = VolumeEntry::over(volumeArray[directoryOffset]);
    if (!entry) return;
    entry->setExecutionTimeDirectory(
        addInterval(machine_.clock.now(), entry->executionIntervalDirectory()));
    entry->setDirectoryStatus(kStatusPassed);
    const std::string volume = entry->volumeMountToName();
    logOnce.ended("backup of " + volume);
    if (const int signal = directoryPipeTask->endingSignal(); signal != 0) {
        machine_.systemLog.write(LogMessage::backupHelperCrashed, {volume, std::int64_t{signal}});
    }
}

void KorvaneProDaemon::copyToLocation(const std::string& location) {
    FileSystem& files = machine_.fileSystem;
    // The start-up volume holds the backup already.
    if (lastPathComponent(location) == machine_.volumes.displayName("/")) return;
    const std::string_view volume = volumeOfBackup(dirBackupFilePath);
    const Result<std::optional<Place>> place = openPlace(
        files, machine_.volumes, location, folderInLocation(volume), MissingFolders::make);
    if (!place) {
        logOnce.write(location, LogMessage::locationPassedOver, {location, place.error().message});
        return;
    }
    logOnce.ended(location);
    if (!*place) return;
    rotateBackups(*(*place)->folder, integerValue(preference(kDirectoryFilesToSave)),
                  machine_.clock.now());
    if (files.exists(dirBackupFilePath)) {
        launchCopy(location, **place);
    } else {
        machine_.systemLog.write(LogMessage::backupFileMissing, {dirBackupFilePath});
    }
}

void KorvaneProDaemon::launchCopy(const std::string& location, const Place& place) {
    const std::string name(lastPathComponent(dirBackupFilePath));
    // An earlier copy runs on; only the last one is watched.
    if (place.isOwn) {
        const std::string_view volume = volumeOfBackup(dirBackupFilePath);
        cpTask = machine_.processes.launchCopy(
            kCopyProgram, {"-p", dirBackupFilePath, volumeFolderAt(location, volume) + '/' + name},
            std::nullopt);
    } else {
        const Account account = place.folder->account();
        cpTask = machine_.processes.launchCopy(
            machine_.bundle.plugIn(kPlaceCopyProgram),
            {std::to_string(account.userId), std::to_string(account.groupId), name},
            CopyPlaces{dirBackupFilePath, *place.folder});
    }
    if (!cpTask) return;
    writeSettingsCopy(location, place);
    scheduleCopyPoll(nextCopyPoll++, directoryRun);
}

void KorvaneProDaemon::writeSettingsCopy(const std::string& location, const Place& place) {
    const Result<std::optional<Place>> top =
        openPlace(machine_.fileSystem, machine_.volumes, volumeTopOf(location));
    if (!top || !*top) return;
    Folder& folder = *(*top)->folder;
    // Whoever may name a location does not come by root's rights further up on its volume.
    const std::uint32_t account = place.folder->account().userId;
    const bool areTheirs = folder.account().userId == account;
    if (!areTheirs && (!(*top)->isOwn || !folder.takeRightsOf(account))) return;
    if (folder.attributesOf(kSettingsCopyName)) return;
    // A failure is no harm: the next run finds it missing and tries again.
    if (!preferenceDictionary) return;
    (void)folder.createFile(kSettingsCopyName, preferencesText(), kSharedFilePermissions);
}

void KorvaneProDaemon::scheduleCopyPoll(std::uint64_t number, std::uint64_t run) {
    copyPolls[number] =
        CopyPoll{run, machine_.runLoop.startTimer(kCopyPollInterval, Repeat::once,
                                                  [this, number] { pollCopy(number); })};
}

void KorvaneProDaemon::pollCopy(std::uint64_t number) {
    if (carryOut("waiting for a copy", [&] { checkCopyTaskComplete(number); })) return;
    copyPolls.erase(number);
    endFailedBackup();
}

void KorvaneProDaemon::checkCopyTaskComplete(std::uint64_t number) {
    const std::uint64_t run = copyPolls.at(number).run;
    const bool isOfThisRun = run == directoryRun;
    if (isOfThisRun && cpTask && cpTask->isRunning()) {
        scheduleCopyPoll(number, run);
        return;
    }
    copyPolls.erase(number);
    // A newer run has a file and polls of its own.
    if (!isOfThisRun) return;
    if (rootSaveDisabled && !dirBackupFilePath.empty()) {
        (void)machine_.fileSystem.remove(dirBackupFilePath);  // another poll may have done so
    }
    cpTask.reset();
    directoryActive = false;
}

void KorvaneProDaemon::abandonDirectoryBackup() {
    directoryPipeTask->interrupt();
    directoryPipeTask->terminate();
    directoryPipeTask.reset();
    if (dirBackupFilePath.empty()) return;
    (void)machine_.fileSystem.remove(dirBackupFilePath);  // it may have written nothing yet
    dirBackupFilePath.clear();
}

// Leaves the due time alone, and the observer too: the helper's end matches no task any more.
void KorvaneProDaemon::directoryBackupStopNotification() {
    if (!directoryPipeTask || !directoryPipeTask->isRunning()) return;
    loadPreferences();
    if (directoryOffset < volumeArray.size()) {
        if (auto entry = VolumeEntry::over(volumeArray[directoryOffset])) {
            entry->setDirectoryStatus(kStatusPassed);
        }
    }
    abandonDirectoryBackup();
    directoryActive = false;
    (void)savePreferences();  // a stop ends here either way
}

void KorvaneProDaemon::disableDirectoryBackupNotification() {
    directoryBackupStopNotification();
    backupDisabled = true;
}

void KorvaneProDaemon::enableDirectoryBackupNotification() { backupDisabled = false; }

}  // namespace korvane
