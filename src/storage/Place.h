// The one look at a place before anything is done there: at a backup location, whatever is to be
// done at it, and at the support folder. It finds out whether anybody but root could change where
// the path leads; if so, all is done with that account's rights and within the folder opened here.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/Result.h"
#include "platform/FileSystem.h"
#include "platform/Folder.h"
#include "platform/Volumes.h"

namespace korvane {

struct Place {
    std::unique_ptr<Folder> folder;
    // Nobody but root and the daemon's own account decides where the path leads, so it may be given
    // to a program by name, and what is in the folder is to be trusted.
    bool isOwn = false;
};

// Whether anybody but its owner may put something into a folder with these attributes.
[[nodiscard]] bool othersMayWriteIn(const ItemAttributes& folder);

enum class MissingFolders { leave, make };

// Opens the folder at `path` and, in it, the one at the relative path `inner`. Nothing when there
// is no such folder or `inner` cannot be made; an error, in words for the log, when the place is
// not to be used:
// - a mount on the way is not of this machine's disks or memory: a dead server would hang the loop;
// - a mount is below a folder of somebody else, or at a folder of `inner`;
// - a link on the way could be another one the next moment;
// - others may write in a folder on the way, so that it is anybody's;
// - a folder of `inner` belongs to another account than the one whose rights are used.
// Of the folders on the way, from "/" on, the first that is not root's or the daemon's own decides
// whose rights are used. Nothing below it is followed to another file system.
[[nodiscard]] Result<std::optional<Place>> openPlace(
    FileSystem& fileSystem, Volumes& volumes, const std::string& path,
    const std::string& inner = {}, MissingFolders missing = MissingFolders::leave);

// Goes through everything below a place's folder, a folder before its contents, with the path
// relative to the start. False from `visit`: not into this folder. What is mounted below is left
// out; so is what is too deep or too much for a person to have made.
enum class Into { no, yes };
void walk(Folder& start, const std::function<Into(Folder& parent, const std::string& name,
                                                  const std::string& relativePath)>& visit);

}  // namespace korvane
