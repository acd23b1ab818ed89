#include "backup/BackupFolders.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <vector>

#include "backup/BackupPlaces.h"
#include "storage/SupportFolder.h"

namespace korvane {

namespace {

constexpr std::uint32_t kRootAccount = 0;

// Whether somebody else decides where the path leads. One that is not there decides nothing.
bool isSomebodyElses(FileSystem& fileSystem, const std::string& path) {
    const std::optional<ItemAttributes> item = fileSystem.attributes(path);
    return item && (item->kind == ItemKind::link ||
                    (item->ownerId != kRootAccount && item->ownerId != fileSystem.userId()));
}

}  // namespace

FolderState prepareFolderAt(FileSystem& fileSystem, const std::string& location,
                            std::string_view volume) {
    const std::vector<std::string> onTheWay = foldersOnLocation(location, volume);
    const auto areOurs = [&] {
        return std::none_of(onTheWay.begin(), onTheWay.end(), [&](const std::string& folder) {
            return isSomebodyElses(fileSystem, folder);
        });
    };
    if (!areOurs()) return FolderState::notOurs;
    if (!fileSystem.exists(locationFolder(location))) {
        for (const std::string& folder : locationFoldersToMake(location)) {
            if (fileSystem.exists(folder)) continue;
            if (!fileSystem.createFolders(folder, fileSystem.userName())) {
                return FolderState::notMade;
            }
        }
    }
    const std::string inner = volumeFolderAt(location, volume);
    if (!fileSystem.exists(inner) && !fileSystem.createFolders(inner, fileSystem.userName())) {
        return FolderState::notMade;
    }
    // What was put there in the meantime would have been taken for a folder made.
    return areOurs() ? FolderState::ready : FolderState::notOurs;
}

void repairPermissions(FileSystem& fileSystem, const std::string& folder) {
    for (const std::string& item : fileSystem.enumerate(folder)) {
        const std::string path = fmt::format("{}/{}", folder, item);
        const std::optional<ItemAttributes> attributes = fileSystem.attributes(path);
        if (!attributes || attributes->kind != ItemKind::folder) continue;
        for (const std::string& name : fileSystem.enumerate(path)) {
            const std::string below = fmt::format("{}/{}", path, name);
            const std::optional<ItemAttributes> descendant = fileSystem.attributes(below);
            if (!descendant) continue;
            if (descendant->ownerId != kRootAccount) break;
            if (descendant->kind != ItemKind::link &&
                descendant->permissions != kSharedFilePermissions) {
                // What cannot be opened now is tried again after the next backup.
                (void)fileSystem.setPermissions(below, kSharedFilePermissions);
            }
        }
    }
}

}  // namespace korvane
