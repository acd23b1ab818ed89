#include "storage/VolumeFolders.h"

#include <iterator>

#include "storage/PathText.h"
#include "storage/Place.h"
#include "storage/SupportFolder.h"

namespace korvane {

namespace {

void removeRecordsFoundIn(FileSystem& fileSystem, const Place& place) {
    walk(*place.folder, [&](Folder& parent, const std::string& name, const std::string& path) {
        if (name.starts_with(kTrashDeletesPrefix)) {
            (void)fileSystem.remove(std::string(kSupportFolder) + '/' + path);  // may not be there
        }
        const std::optional<ItemAttributes> item = parent.attributesOf(name);
        const bool isOwnFolder = item && item->kind == ItemKind::folder && item->ownerId == 0;
        return isOwnFolder && !othersMayWriteIn(*item) ? Into::yes : Into::no;
    });
}

}  // namespace

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
    const std::string folder = volumeFolderName(volumes.displayName(mountPoint));
    const std::string startUpVolume = volumes.displayName("/");
    for (const PropertyList& element : *locations) {
        const std::string* location = element.string();
        if (!location) continue;
        const Result<std::optional<Place>> place =
            lastPathComponent(*location) == startUpVolume
                ? openPlace(fileSystem, volumes, kSupportFolder, folder)
                : openPlace(fileSystem, volumes, *location,
                            std::string(kLocationFolderName) + '/' + folder);
        if (place && *place && (*place)->isOwn) removeRecordsFoundIn(fileSystem, **place);
    }
}

}  // namespace korvane
