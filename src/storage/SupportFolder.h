// Where the daemon and the main application keep what they share, and how the folders and markers
// in it are named. Names and paths only; nothing here touches a disk.
#pragma once

#include <string>
#include <string_view>

namespace korvane {

// Holds everything the two programs share; the daemon's life line.
inline constexpr char kSupportFolder[] = "/Library/Application Support/Korvane Protection";
// The settings document in it.
inline constexpr char kPreferencesFile[] =
    "/Library/Application Support/Korvane Protection/KorvaneProtection.plist";
// The daemon's folder on a volume that holds copies of directory backups.
inline constexpr char kLocationFolderName[] = "Korvane Protection";

// Everything the main application may rewrite, as any user, has these permissions.
inline constexpr unsigned kSharedFilePermissions = 0666;

// The one empty file in a volume's folder says by its name whether directory backups of the volume
// are switched on.
inline constexpr char kBackupOnMarker[] = "DirectoryBackup (ON)";
inline constexpr char kBackupOffMarker[] = "DirectoryBackup (OFF)";
// Directory backups begin so; the markers, without the blank, do not.
inline constexpr char kBackupFilePrefix[] = "Directory Backup";
// The copy of the settings at the top of a volume that holds copies of directory backups.
inline constexpr char kSettingsCopyName[] = ".KorvaneProtection.plist";
// Files with the records of a volume's deleted items begin so.
inline constexpr char kTrashDeletesPrefix[] = "Trash Deletes";

// The name of a volume's own folder below the support folder: its display name. A "/" in it leads
// to a nested folder; a part that would lead out of the support folder, or nowhere below it, is
// escaped, since what carries this name may be removed with all its contents.
[[nodiscard]] std::string volumeFolderName(std::string_view displayName);
[[nodiscard]] std::string volumeFolder(std::string_view displayName);

// The same of a drive: its model and serial number. A "/" or ".." in them is escaped; a name that
// no folder can have is cut, and ends in a digest of the whole.
[[nodiscard]] std::string driveFolderName(std::string_view model, std::string_view serial);
[[nodiscard]] std::string driveFolder(std::string_view model, std::string_view serial);

}  // namespace korvane
