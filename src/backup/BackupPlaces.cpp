#include "backup/BackupPlaces.h"

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

std::string locationFolder(std::string_view location) {
    return std::string(location) + '/' + kLocationFolderName;
}

std::string volumeFolderAt(std::string_view location, std::string_view volume) {
    return locationFolder(location) + '/' + std::string(volume);
}

std::vector<std::string> locationFoldersToMake(std::string_view location) {
    const std::string whole = locationFolder(location);
    const std::vector<std::string_view> components = componentsOf(whole);
    std::vector<std::string> folders;
    std::string folder = kVolumesFolder;
    for (std::size_t index = 1; index < components.size(); ++index) {
        folder += '/';
        folder += components[index];
        folders.push_back(folder);
    }
    return folders;
}

std::vector<std::string> foldersOnLocation(std::string_view location, std::string_view volume) {
    constexpr std::size_t kComponentsOfTop = 2;  // "Volumes" and the volume's name
    const std::string whole = volumeFolderAt(location, volume);
    const std::vector<std::string_view> components = componentsOf(whole);
    std::vector<std::string> folders;
    for (std::size_t index = kComponentsOfTop; index < components.size(); ++index) {
        folders.push_back(
            whole.substr(0, static_cast<std::size_t>(components[index].end() - whole.data())));
    }
    return folders;
}

std::string settingsCopyPath(std::string_view location) {
    const std::vector<std::string_view> components = componentsOf(location);
    if (components.size() < 2) return {};
    return std::string(kVolumesFolder) + '/' + std::string(components[1]) + '/' + kSettingsCopyName;
}

}  // namespace korvane
