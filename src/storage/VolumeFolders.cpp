#include "storage/VolumeFolders.h"

#include <iterator>

#include "storage/PathText.h"
#include "storage/SupportFolder.h"

namespace korvane {

void VolumeFolders::removeUnlisted(const std::string& displayName) {
    if (isUnlisted(volumeFolderName(displayName))) {
        (void)fileSystem_.remove(volumeFolder(displayName));  // most often there is nothing
    }
}

bool VolumeFolders::isUnlisted(const std::string& folderName) {
    if (!isListed_) {
        isListed_ = true;
        if (auto names = fileSystem_.list(kSupportFolder)) {
            names_.emplace(std::make_move_iterator(names->begin()),
                           std::make_move_iterator(names->end()));
        }
    }
    return names_ && !names_->contains(folderName);
}

// Asks for the marker first: where it stands the folder does too, and while nothing changes that is
// all but the look at the other one.
void VolumeFolders::keepMarker(const std::string& displayName, BackupMarker marker,
                               MissingFolder missing) {
    const std::string folder = volumeFolder(displayName);
    const std::string on = folder + '/' + kBackupOnMarker;
    const std::string off = folder + '/' + kBackupOffMarker;
    const std::string& wanted = marker == BackupMarker::on ? on : off;
    const std::string& other = marker == BackupMarker::on ? off : on;

    const bool isThere = fileSystem_.exists(wanted);
    if (!isThere && missing == MissingFolder::create && !fileSystem_.exists(folder) &&
        fileSystem_.createFolders(folder, fileSystem_.userName()) && names_) {
        const std::string name = volumeFolderName(displayName);
        names_->insert(name.substr(0, name.find('/')));
    }
    if (fileSystem_.exists(other)) (void)fileSystem_.remove(other);  // the next pass tries again
    if (!isThere) (void)fileSystem_.createEmptyFile(wanted, kSharedFilePermissions);
}

void removeTrashRecords(FileSystem& fileSystem, Volumes& volumes, const std::string& mountPoint,
                        const PropertyList* directoryBackupLocations) {
    const PropertyListArray* locations =
        directoryBackupLocations ? directoryBackupLocations->array() : nullptr;
    if (!locations) return;
    const std::string displayName = volumes.displayName(mountPoint);
    const std::string startUpVolume = volumes.displayName("/");
    for (const PropertyList& element : *locations) {
        const std::string* location = element.string();
        if (!location) continue;
        const std::string folder =
            lastPathComponent(*location) == startUpVolume
                ? volumeFolder(displayName)
                : *location + '/' + kLocationFolderName + '/' + volumeFolderName(displayName);
        for (const std::string& item : fileSystem.enumerate(folder)) {
            if (!lastPathComponent(item).starts_with(kTrashDeletesPrefix)) continue;
            (void)fileSystem.remove(std::string(kSupportFolder) + '/' + item);  // may not be there
        }
    }
}

}  // namespace korvane
