#include "scenarios/BackupBed.h"

#include <algorithm>

#include "backup/BackupPlaces.h"
#include "backup/BackupRotation.h"
#include "scenarios/DaemonFiles.h"
#include "storage/SupportFolder.h"

namespace korvane {

namespace {

constexpr char kHelper[] = "/PlugIns/KorvaneProDirectoryBackup";
constexpr char kCopy[] = "/bin/cp";
constexpr char kCopyOfAccount[] = "/PlugIns/KorvaneProCopy";
constexpr double kWeekSeconds = 604'800;

std::string folderOfData(const std::string& location) {
    return location.empty() ? volumeFolder("Data") : volumeFolderAt(location, "Data");
}

}  // namespace

BackupBed::BackupBed(std::vector<std::string> locations) : Scenario("three-volumes") {
    machine().bundle.addPlugIn("KorvaneProDirectoryBackup");
    machine().bundle.addPlugIn("KorvaneProCopy");
    helperTakes(std::chrono::seconds(1));
    copyTakes(std::chrono::seconds(1));
    putSettings(locations);
}

void BackupBed::putSettings(const std::vector<std::string>& locations,
                            const std::function<void(Dictionary& data)>& edit,
                            std::int64_t filesToSave) {
    Dictionary settings = completePreferences();
    PropertyListArray names;
    for (const std::string& location : locations) names.emplace_back(location);
    settings.set("directoryBackupLocations", std::move(names));
    settings.set("directoryFilesToSave", filesToSave);
    PropertyListArray volumes;
    for (const char* const path : {"/", "/Volumes/Data", "/Volumes/Backup"}) {
        Dictionary entry{{"volumeMountToName", path},
                         {"freeSpaceWarningLevel", 15},
                         {"executionIntervalUsage_hours", 168},
                         {"executionTimeUsage", secondsNow() + kWeekSeconds},
                         {"executionIntervalDirectory_hours", 4},
                         {"executionIntervalDirectory_minutes", 2},
                         {"executionIntervalDirectory_seconds", 3},
                         {"executionTimeDirectory", secondsNow()},
                         {"directoryStatus", "0"},
                         {"directoryOnOff", std::string(path) == "/Volumes/Data"}};
        if (edit) edit(entry);
        volumes.emplace_back(std::move(entry));
    }
    settings.set("volumeArray", std::move(volumes));
    putPreferences(*this, settings);
}

void BackupBed::helperTakes(std::optional<std::chrono::microseconds> duration) {
    setHelper(duration, true);
}

void BackupBed::helperWritesNothing() { setHelper(std::chrono::seconds(1), false); }

void BackupBed::setHelper(std::optional<std::chrono::microseconds> duration, bool writes) {
    machine().processes.setProgram(
        kHelper, {duration, [this, writes](const std::vector<std::string>& arguments) {
                      if (writes) put(arguments.at(1), "the folders of " + arguments.at(2));
                  }});
}

void BackupBed::copyTakes(std::optional<std::chrono::microseconds> duration) {
    const auto copy = [this](const std::string& from, const std::string& to) {
        const auto bytes = machine().fileSystem.bytes(from);
        if (!bytes || !machine().fileSystem.put(to, *bytes)) return;
        machine().fileSystem.setModificationDate(
            to, machine().fileSystem.attributes(from)->modificationDate);
    };
    machine().processes.setProgram(kCopy, {duration, [copy](const auto& arguments) {
                                               copy(arguments.at(1), arguments.at(2));
                                           }});
    // An account and its group, a name, and the file and the folder that are handed over open.
    machine().processes.setProgram(
        kCopyOfAccount, {duration, [this, copy](const auto& arguments) {
                             const std::string path = arguments.at(4) + '/' + arguments.at(2);
                             copy(arguments.at(3), path);
                             machine().fileSystem.setOwner(
                                 path, static_cast<std::uint32_t>(std::stoul(arguments.at(0))));
                         }});
}

std::string BackupBed::putBackup(const std::string& location, std::chrono::seconds age) {
    const Time date = machine().clock.now() - age;
    const std::string name = backupFileName(date);
    const std::string path = folderOfData(location) + '/' + name;
    put(path, "an earlier backup");
    machine().fileSystem.setModificationDate(path, date);
    return name;
}

std::vector<SimulatedProcesses::Launch> BackupBed::helpers() {
    auto launches = machine().processes.launches();
    std::erase_if(launches, [](const auto& launch) { return launch.path != kHelper; });
    return launches;
}

std::vector<SimulatedProcesses::Launch> BackupBed::copies() {
    auto launches = machine().processes.launches();
    std::erase_if(launches, [](const auto& launch) { return launch.path != kCopy; });
    return launches;
}

std::vector<SimulatedProcesses::Launch> BackupBed::copiesOfAccounts() {
    auto launches = machine().processes.launches();
    std::erase_if(launches, [](const auto& launch) { return launch.path != kCopyOfAccount; });
    return launches;
}

std::vector<std::string> BackupBed::backups(const std::string& location) {
    auto names =
        machine().fileSystem.list(folderOfData(location)).value_or(std::vector<std::string>{});
    std::erase_if(names, [](const std::string& name) { return !isBackupName(name); });
    std::sort(names.begin(), names.end());
    return names;
}

std::string BackupBed::status(const std::string& path) {
    return stringValue(volumeEntry(path).find("directoryStatus"));
}

double BackupBed::dueTime(const std::string& path) {
    return doubleValue(volumeEntry(path).find("executionTimeDirectory"));
}

bool BackupBed::isActive() { return send("isDirectoryExecuteComplete").answer() == Answer::no; }

}  // namespace korvane
