#include "backup/BackupPlaces.h"

#include <vector>

#include "storage/PathText.h"
#include "storage/SupportFolder.h"

namespace korvane {

namespace {

constexpr char kVolumesFolder[] = "/Volumes";

}  // namespace

std::string backupFileName(Time now) {
    return std::string(kBackupFilePrefix) + formatLocalTime(now, " %Y-%m-%d-%H-%M-%S");
}

std::string_view volumeOfBackup(std::string_view backupFilePath) {
    return lastPathComponent(backupFilePath.substr(0, backupFilePath.rfind('/')));
}

std::string folderInLocation(std::string_view volume) {
    return std::string(kLocationFolderName) + '/' + std::string(volume);
}

std::string volumeFolderAt(std::string_view location, std::string_view volume) {
    return std::string(location) + '/' + folderInLocation(volume);
}

std::string volumeTopOf(std::string_view location) {
    const std::vector<std::string_view> components = pathComponents(location);
    if (components.size() < 2) return {};
    return std::string(kVolumesFolder) + '/' + std::string(components[1]);
}

}  // namespace korvane
