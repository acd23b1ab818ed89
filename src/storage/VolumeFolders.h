// The volumes' own folders below the support folder, with the marker that says whether directory
// backups of the volume are switched on, and the records of deleted items kept beside them.
// Failures are ignored: the next pass finds the same and tries again.
#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>

#include "base/PropertyList.h"
#include "platform/FileSystem.h"
#include "platform/Volumes.h"

namespace korvane {

enum class BackupMarker { off, on };
enum class MissingFolder { leave, create };

// The folders during one pass, which shares one listing of the support folder.
class VolumeFolders {
  public:
    explicit VolumeFolders(FileSystem& fileSystem) : fileSystem_(fileSystem) {}

    // Removes what stands at a volume's folder without being in the listing. When the listing
    // cannot be had nothing is: that says nothing of what is there.
    void removeUnlisted(const std::string& displayName);

    // Leaves this marker and no other in a volume's folder.
    void keepMarker(const std::string& displayName, BackupMarker marker, MissingFolder missing);

  private:
    // Whether the listing lacks the name.
    bool isUnlisted(const std::string& folderName);

    FileSystem& fileSystem_;
    bool isListed_ = false;
    // Names in the support folder; what this pass has made is among them. Nothing when the folder
    // cannot be listed.
    std::optional<std::set<std::string, std::less<>>> names_;
};

// For an encrypted volume: walks its folder at each backup location and removes the records of
// deleted items that it finds there, each from below the support folder, whichever location it was
// found at. A location that somebody else could have filled decides nothing.
void removeTrashRecords(FileSystem& fileSystem, Volumes& volumes, const std::string& mountPoint,
                        const PropertyList* directoryBackupLocations);

}  // namespace korvane
