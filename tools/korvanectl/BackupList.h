// The directory backups that are there: in the daemon's own folder and at the chosen locations. By
// their names; what is in them RecordReader knows.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/Calendar.h"
#include "base/PropertyList.h"
#include "korvanectl/Outcome.h"
#include "platform/Volumes.h"

namespace korvane::ctl {

struct BackupFound {
    std::string location;  // "/Volumes/Safe"
    std::string volume;    // by the name of its folder
    std::string name;
    std::string path;
    std::uint64_t sizeBytes = 0;
    Time modified{};

    // What follows "Directory Backup " in its name: when it was made.
    [[nodiscard]] std::string_view stamp() const;
};

// The locations in the preferences, "/Volumes/Safe" and the like.
[[nodiscard]] PropertyListArray backupLocations(const Dictionary& preferences);

// Location by location, those on the start-up volume first; volume by volume, the oldest first as
// far as their names say.
[[nodiscard]] std::vector<BackupFound> findBackups(const Dictionary& preferences, Volumes& volumes,
                                                   const std::string& supportFolder);

// The backup that a person means: by its path, its name, or the stamp in its name. Of several
// copies of one backup it is the first. Failures: none, or those of several volumes.
[[nodiscard]] Outcome<std::string> pathOfBackup(const std::vector<BackupFound>& backups,
                                                const std::string& name);

}  // namespace korvane::ctl
