// Which backup in a folder gives way to a new one. The rule keeps the oldest backup while it is
// young, since until then it is the only one from before the latest changes.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "base/Calendar.h"
#include "platform/Folder.h"

namespace korvane {

// A name in a folder that holds backups.
struct BackupFile {
    std::string name;
    Time modificationDate{};
};

// Whether the name is that of a backup: only its beginning counts.
[[nodiscard]] bool isBackupName(std::string_view name);

// The order of rotation: by modification date, earlier first.
[[nodiscard]] std::strong_ordering arrayDateSort(const BackupFile& first, const BackupFile& second);

// The position of the backup to be removed, so that fewer than `filesToSave` remain: the oldest if
// it is more than a day old, else the second oldest. Nothing when there are few enough, when there
// is no such backup, or when the limit is 0 or less.
[[nodiscard]] std::optional<std::size_t> rotationVictim(std::span<const BackupFile> oldestFirst,
                                                        std::int64_t filesToSave, Time now);

// Removes victims from the folder until there is none; the first that cannot be removed ends it.
// A folder of more names than a person keeps is left alone.
void rotateBackups(Folder& folder, std::int64_t filesToSave, Time now);

}  // namespace korvane
