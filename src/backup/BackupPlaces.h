// How directory backups and their places are named: the files, and the folders and the settings
// copy at a location. Texts only; nothing here looks at a disk.
#pragma once

#include <string>
#include <string_view>

#include "base/Calendar.h"

namespace korvane {

// The name of a backup made now: its local time stands in it.
[[nodiscard]] std::string backupFileName(Time now);

// The last component of the folder that holds the file: the folder is named after the volume.
[[nodiscard]] std::string_view volumeOfBackup(std::string_view backupFilePath);

// The volume's own folder in the daemon's at a location: by its path from there, and whole.
[[nodiscard]] std::string folderInLocation(std::string_view volume);
[[nodiscard]] std::string volumeFolderAt(std::string_view location, std::string_view volume);

// The top of the volume that the location is on, where the settings copy is: "/Volumes/" and the
// location's third component, "/" being the first. Empty for a location without one.
[[nodiscard]] std::string volumeTopOf(std::string_view location);

}  // namespace korvane
