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
#include "storage/SupportFolder.h"
#include "storage/VolumeEntry.h"
#include "storage/VolumeFolders.h"

namespace korvane {

namespace {

constexpr char kBackupHelper[] = "KorvaneProDirectoryBackup";
// The helper does nothing for a caller who does not know this word.
constexpr char kHelperWord[] = "quorlen";
constexpr char kCopyProgram[] = "/bin/cp";
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
    const std::string folder = volumeFolder(displayName);
    if (machine_.fileSystem.exists(folder)) {
        rotateBackups(machine_.fileSystem, folder, integerValue(preference(kDirectoryFilesToSave)),
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
    directoryActive = true;
    ++directoryRun;
    machine_.processes.setTaskDidTerminate(
        [this](const Task& task) { directoryTaskTerminateNotification(task); });
    dirBackupFilePath = volumeFolder(displayName) + '/' + backupFileName(machine_.clock.now());
    directoryPipeTask = machine_.processes.launch(
        helper, {kHelperWord, dirBackupFilePath, machine_.volumes.pathBytes(path)});
    if (directoryPipeTask) return;
    machine_.processes.setTaskDidTerminate(nullptr);
    dirBackupFilePath.clear();
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
    repairPermissions(machine_.fileSystem, kSupportFolder);
    if (!cpTask) directoryActive = false;
}

void KorvaneProDaemon::noteDirectoryBackup() {
    if (directoryOffset >= volumeArray.size()) return;
    auto entry = VolumeEntry::over(volumeArray[directoryOffset]);
    if (!entry) return;
    entry->setExecutionTimeDirectory(
        addInterval(machine_.clock.now(), entry->executionIntervalDirectory()));
    entry->setDirectoryStatus(kStatusPassed);
}

void KorvaneProDaemon::copyToLocation(const std::string& location) {
    FileSystem& files = machine_.fileSystem;
    // The start-up volume holds the backup already.
    if (lastPathComponent(location) == machine_.volumes.displayName("/") ||
        !files.isFolder(location))
        return;
    const std::string_view volume = volumeOfBackup(dirBackupFilePath);
    switch (prepareFolderAt(files, location, volume)) {
        case FolderState::ready:
            break;
        case FolderState::notMade:
            return;
        case FolderState::notOurs:
            machine_.systemLog.write(LogMessage::locationPassedOver,
                                     {location, kLocationFolderName});
            return;
    }
    const std::string folder = volumeFolderAt(location, volume);
    rotateBackups(files, folder, integerValue(preference(kDirectoryFilesToSave)),
                  machine_.clock.now());
    if (files.exists(dirBackupFilePath)) {
        launchCopy(location, folder);
    } else {
        machine_.systemLog.write(LogMessage::backupFileMissing, {dirBackupFilePath});
    }
}

void KorvaneProDaemon::launchCopy(const std::string& location, const std::string& folder) {
    const std::string target = folder + '/' + std::string(lastPathComponent(dirBackupFilePath));
    // An earlier copy runs on; only the last one is watched.
    cpTask = machine_.processes.launch(kCopyProgram, {"-p", dirBackupFilePath, target});
    if (!cpTask) return;
    const std::string settingsCopy = settingsCopyPath(location);
    if (!settingsCopy.empty() && !machine_.fileSystem.exists(settingsCopy)) {
        // A failure is no harm: the next run finds it missing and tries again.
        (void)writePreferencesTo(settingsCopy, Durability::process);
    }
    scheduleCopyPoll(nextCopyPoll++, directoryRun);
}

void KorvaneProDaemon::scheduleCopyPoll(std::uint64_t number, std::uint64_t run) {
    copyPolls[number] = CopyPoll{
        run, machine_.runLoop.startTimer(kCopyPollInterval, Repeat::once,
                                         [this, number] { checkCopyTaskComplete(number); })};
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
