// Gives what the daemon has made in the support folder the permissions that the main application
// needs.
#pragma once

#include <string>

#include "platform/FileSystem.h"
#include "platform/Volumes.h"

namespace korvane {

// Opens what root has made to everybody. For each item anywhere below the folder its own
// descendants are gone through in order, up to the first that is not root's: those after it are
// left to whoever made them. Links are not followed, and folders that others may write in are left
// alone: there a name could lead to any file of root's.
void repairPermissions(FileSystem& fileSystem, Volumes& volumes, const std::string& folder);

}  // namespace korvane
