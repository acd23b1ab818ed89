// Files and folders as the daemon needs them. Paths are absolute and in the file system's own
// bytes. Every call may block on a dying disk; none follows a link in the last component unless its
// comment says so.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/PropertyList.h"
#include "base/PropertyListFile.h"
#include "base/Result.h"
#include "platform/Folder.h"
#include "platform/ItemAttributes.h"

namespace korvane {

// Who may write a file that is read. What others may write is taken for the daemon's own only in a
// folder that is the daemon's: elsewhere it may be one of its shared files, which somebody has
// given a name there.
enum class Writers { owner, anybody };

class FileSystem {
  public:
    virtual ~FileSystem() = default;

    // Whether something is there, and whether it is a folder. Both follow links.
    [[nodiscard]] virtual bool exists(const std::string& path) = 0;
    [[nodiscard]] virtual bool isFolder(const std::string& path) = 0;

    // The names in a folder, without "." and "..", in no particular order; nothing when it cannot
    // be listed. Here and below the walk begins where the path leads, through a link too.
    [[nodiscard]] virtual std::optional<std::vector<std::string>> list(const std::string& path) = 0;
    // The paths of everything below a folder, relative to it, a folder before its contents. Folders
    // that cannot be read are passed over; links in it are not followed. Empty when there is none.
    [[nodiscard]] virtual std::vector<std::string> enumerate(const std::string& path) = 0;

    [[nodiscard]] virtual std::optional<ItemAttributes> attributes(const std::string& path) = 0;

    // "/", held open: the way to work in folders in which others may exchange what a path leads to.
    // Null when it cannot be opened.
    [[nodiscard]] virtual std::unique_ptr<Folder> openRoot() = 0;

    // Creates the folder and the folders above it, those that it makes owned by the named account.
    // True when the folder is there afterwards.
    virtual bool createFolders(const std::string& path, const std::string& ownerName) = 0;
    // Creates an empty file, or empties the one that is there, with these permissions whatever the
    // umask. The folder must exist. False, and nothing changed, when a link or a folder is there.
    virtual bool createEmptyFile(const std::string& path, mode_t permissions) = 0;
    // Removes an item, a folder with its contents; links below are removed, not followed. A folder
    // that cannot be emptied wholly keeps what could not be removed.
    virtual Result<std::monostate> remove(const std::string& path) = 0;
    virtual bool setPermissions(const std::string& path, mode_t permissions) = 0;

    // A property list in a file, and its rewriting in place: PropertyListFile.h says how. What is
    // there when a write fails is what was there before, or is restored at the next read.
    [[nodiscard]] virtual Result<PropertyList> readPropertyList(const std::string& path) = 0;
    [[nodiscard]] virtual Result<std::monostate> writePropertyList(const std::string& path,
                                                                   const PropertyList& value,
                                                                   mode_t permissions,
                                                                   Durability durability) = 0;
    // Reads, lets `edit` change what was read (false: nothing changed, nothing is written) and
    // writes, without copying it: the way to touch one record of many. `edit` is not called, and
    // the error says why, when the file cannot be read.
    [[nodiscard]] virtual Result<std::monostate> changePropertyList(
        const std::string& path, const std::function<bool(PropertyList&)>& edit, mode_t permissions,
        Durability durability) = 0;

    // The bytes of a regular file of the daemon's own user. Never through a link.
    [[nodiscard]] virtual Result<std::string> readFile(const std::string& path,
                                                       Writers writers) = 0;
    // Creates a file with these bytes and permissions (less the umask), or empties and rewrites the
    // one that is there. Never through a link, nor into a file of somebody else, that others may
    // write or with a second name: in a folder that all may write, that is another's.
    [[nodiscard]] virtual Result<std::monostate> writeFile(const std::string& path,
                                                           std::string_view bytes,
                                                           mode_t permissions) = 0;
    // Adds records of this length at the end, creating the file as writeFile() does; of whoever it
    // is. All of them or none; the part of a record that a kill has left at the end is cut off
    // first.
    [[nodiscard]] virtual Result<std::monostate> appendRecords(const std::string& path,
                                                               std::string_view records,
                                                               std::size_t recordBytes,
                                                               mode_t permissions) = 0;
    // Gives an item another name in its folder or elsewhere on its volume. False, and nothing
    // changed, when something has that name.
    virtual bool rename(const std::string& path, const std::string& newPath) = 0;

    // The login name of the account the daemon runs as.
    [[nodiscard]] virtual std::string userName() = 0;
    // The number of that account.
    [[nodiscard]] virtual std::uint32_t userId() = 0;
};

}  // namespace korvane
