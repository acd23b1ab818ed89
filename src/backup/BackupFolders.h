// The folders that backups are kept in, on the disk: made at a location, checked before they are
// used, and given the permissions that the main application needs.
#pragma once

#include <string>
#include <string_view>

#include "platform/FileSystem.h"

namespace korvane {

enum class FolderState {
    ready,
    notMade,  // it could not be made
    notOurs   // a link, or a folder of somebody else's, stands where it or the one above should be
};

// Makes the volume's folder at a location where it is missing. What somebody else has put there, or
// could swap for a link to another place, is not used: the daemon writes and removes as root. Only
// whoever owns the top folder of the location's volume is trusted: by renaming the daemon's folder
// he could still lead astray what comes after this look, the copying program above all.
[[nodiscard]] FolderState prepareFolderAt(FileSystem& fileSystem, const std::string& location,
                                          std::string_view volume);

// Opens what root has made for everybody. For each item anywhere below the folder its own
// descendants are gone through in order, up to the first that is not root's: those after it are
// left to whoever made them. Links are not followed.
void repairPermissions(FileSystem& fileSystem, const std::string& folder);

}  // namespace korvane
