#include "backup/BackupFolders.h"

#include <memory>
#include <optional>

#include "base/PropertyListFile.h"
#include "storage/Place.h"
#include "storage/SupportFolder.h"

namespace korvane {

namespace {

constexpr std::uint32_t kRootAccount = 0;

void repairBelow(Folder& item) {
    bool isOver = false;
    walk(item, [&](Folder& parent, const std::string& name, const std::string&) {
        // A copy that everybody may write would be of no use.
        if (isCopyOfPropertyList(name)) return Into::no;
        const std::optional<ItemAttributes> found =
            isOver ? std::nullopt : parent.attributesOf(name);
        if (!found) return Into::no;
        if (found->ownerId != kRootAccount) {
            isOver = true;
            return Into::no;
        }
        const bool isFolder = found->kind == ItemKind::folder;
        // What others have put into such a folder would stay in it when it is closed to them.
        if (found->kind == ItemKind::link || (isFolder && othersMayWriteIn(*found))) {
            return Into::no;
        }
        if (found->permissions != kSharedFilePermissions) {
            // What cannot be opened now is tried again after the next backup.
            (void)parent.setPermissions(name, kSharedFilePermissions);
        }
        return isFolder ? Into::yes : Into::no;
    });
}

}  // namespace

void repairPermissions(FileSystem& fileSystem, Volumes& volumes, const std::string& folder) {
    const Result<std::optional<Place>> place = openPlace(fileSystem, volumes, folder);
    if (!place || !*place || !(*place)->isOwn) return;
    walk(*(*place)->folder, [](Folder& parent, const std::string& name, const std::string&) {
        const std::unique_ptr<Folder> item = parent.open(name, Mounts::refused);
        const std::optional<ItemAttributes> found = item ? item->attributes() : std::nullopt;
        if (!found || found->ownerId != kRootAccount || othersMayWriteIn(*found)) return Into::no;
        repairBelow(*item);
        return Into::yes;
    });
}

}  // namespace korvane
