#include "korvanectl/BackupList.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <system_error>
#include <utility>

#include "core/DefaultPreferences.h"
#include "korvanectl/Text.h"
#include "storage/PathText.h"
#include "storage/SupportFolder.h"

namespace korvane::ctl {

namespace {

namespace fs = std::filesystem;

// The names in a folder, sorted; none where there is no folder, or none that may be read.
std::vector<std::string> namesIn(const std::string& folder) {
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator entry{folder, error}; !error && entry != fs::directory_iterator{};
         entry.increment(error)) {
        names.push_back(entry->path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

void addBackups(const std::string& location, const std::string& folder,
                std::vector<BackupFound>& backups) {
    for (const std::string& volume : namesIn(folder)) {
        const std::string volumeFolder = fmt::format("{}/{}", folder, volume);
        for (const std::string& name : namesIn(volumeFolder)) {
            BackupFound found{.location = location,
                              .volume = volume,
                              .name = name,
                              .path = fmt::format("{}/{}", volumeFolder, name)};
            struct stat status {};
            if (!name.starts_with(kBackupFilePrefix) || ::lstat(found.path.c_str(), &status) != 0 ||
                !S_ISREG(status.st_mode)) {
                continue;
            }
            found.sizeBytes = static_cast<std::uint64_t>(status.st_size);
            found.modified = Time{std::chrono::seconds{status.st_mtim.tv_sec}};
            backups.push_back(std::move(found));
        }
    }
}

}  // namespace

std::string_view BackupFound::stamp() const {
    std::string_view rest = name;
    rest.remove_prefix(std::min(rest.size(), std::string_view{kBackupFilePrefix}.size()));
    return rest.substr(std::min(rest.find_first_not_of(' '), rest.size()));
}

PropertyListArray backupLocations(const Dictionary& preferences) {
    const PropertyList* const stored = preferences.find(kDirectoryBackupLocations);
    return stored != nullptr && stored->array() != nullptr ? *stored->array() : PropertyListArray{};
}

std::vector<BackupFound> findBackups(const Dictionary& preferences, Volumes& volumes,
                                     const std::string& supportFolder) {
    std::vector<BackupFound> backups;
    const std::string startUpVolume = volumes.displayName("/");
    addBackups("/Volumes/" + startUpVolume, supportFolder, backups);
    for (const PropertyList& element : backupLocations(preferences)) {
        const std::string location = stringValue(&element);
        if (!location.empty() && lastPathComponent(location) != startUpVolume) {
            addBackups(location, fmt::format("{}/{}", location, kLocationFolderName), backups);
        }
    }
    return backups;
}

Outcome<std::string> pathOfBackup(const std::vector<BackupFound>& backups,
                                  const std::string& name) {
    if (name.find('/') != std::string::npos) {
        return name;
    }
    const BackupFound* found = nullptr;
    for (const BackupFound& each : backups) {
        if (each.stamp() != name && each.name != name) {
            continue;
        }
        if (found != nullptr && found->volume != each.volume) {
            return Failure{ExitStatus::refused,
                           fmt::format("several volumes have a backup \"{}\"; give the path of "
                                       "one: {} or {}",
                                       printable(name), shellWord(printable(found->path)),
                                       shellWord(printable(each.path)))};
        }
        found = found == nullptr ? &each : found;
    }
    if (found == nullptr) {
        return Failure{
            ExitStatus::refused,
            fmt::format("no backup \"{}\"; korvanectl backups shows all of them", printable(name))};
    }
    return found->path;
}

}  // namespace korvane::ctl
