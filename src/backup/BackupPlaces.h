// How directory backups and their places are named: the files, and the folders and the settings
// copy at a location. Texts only; nothing here looks at a disk.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "base/Calendar.h"

namespace korvane {

// The name of a backup made now: its local time stands in it.
[[nodiscard]] std::string backupFileName(Time now);

// The last component of the folder that holds the file: the folder is named after the volume.
[[nodiscard]] std::string_view volumeOfBackup(std::string_view backupFilePath);

// The daemon's folder at a location, and the volume's own in it.
[[nodiscard]] std::string locationFolder(std::string_view location);
[[nodiscard]] std::string volumeFolderAt(std::string_view location, std::string_view volume);

// The folders to be made, outermost first, for the daemon's folder at the location: everything
// below "/Volumes", under which every location lies, that its path names from its third component
// on.
[[nodiscard]] std::vector<std::string> locationFoldersToMake(std::string_view location);

// The folders on the way to the volume's own, outermost first, that lie below the top of the volume
// that the location is on: of "/Volumes/NAME/…" all but the first two.
[[nodiscard]] std::vector<std::string> foldersOnLocation(std::string_view location,
                                                         std::string_view volume);

// The settings copy at the top of the volume that the location is on: by the location's third
// component, "/" being the first. Empty for a location without one.
[[nodiscard]] std::string settingsCopyPath(std::string_view location);

}  // namespace korvane
