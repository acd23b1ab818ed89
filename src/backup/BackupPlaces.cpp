#include "backup/BackupPlaces.h"

#include <vector>

#include "storage/PathText.h"
#include "storage/SupportFolder.h"

namespace korvane {

namespace {

constexpr char kVolumesFolder[] = "/Volumes";

// The components of an absolute path after "/"; empty ones do not count.
std::vector<std::string_view> componentsOf(std::string_view path) {
    std::vector<std::string_view> components;
    while (!path.empty()) {
        const std::size_t slash = path.find('/');
        if (slash != 0) components.push_back(path.substr(0, slash));
        path.remove_prefix(slash == std::string_view::npos ? path.size() : slash + 1);
    }
    return components;
}

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
    const std::vector<std::string_view> components = componentsOf(location);
    if (components.size() < 2) return {};
    return std::string(kVolumesFolder) + '/' + std::string(components[1]);
}

}  // namespace korvane
