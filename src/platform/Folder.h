// A folder that is held open. What is done through it reaches this folder and what is directly in
// it, whoever renames it or puts something else in its place meanwhile. A name is a single name,
// never a path, and a link is never followed. Every call may block on a dying disk.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "base/Result.h"
#include "platform/ItemAttributes.h"

namespace korvane {

// Whether a folder is opened although another file system is mounted on it.
enum class Mounts { crossed, refused };

// An account and the group that its new files belong to.
struct Account {
    std::uint32_t userId = 0;
    std::uint32_t groupId = 0;
};

class Folder {
  public:
    virtual ~Folder() = default;

    // The folder itself; nothing when its disk does not tell.
    [[nodiscard]] virtual std::optional<ItemAttributes> attributes() = 0;
    // An item in it.
    [[nodiscard]] virtual std::optional<ItemAttributes> attributesOf(const std::string& name) = 0;
    // The names in it, without "." and "..", in no particular order and at most so many; nothing
    // when it cannot be listed.
    [[nodiscard]] virtual std::optional<std::vector<std::string>> list(std::size_t most) = 0;
    // Where a link leads to; nothing when it is none.
    [[nodiscard]] virtual std::optional<std::string> linkTarget(const std::string& name) = 0;

    // Null when there is no folder of this name, or when it cannot be opened.
    [[nodiscard]] virtual std::unique_ptr<Folder> open(const std::string& name, Mounts mounts) = 0;
    // Makes a folder. False, and nothing changed, when something has that name.
    virtual bool make(const std::string& name) = 0;
    // Makes a file with these bytes and permissions, whatever the umask. An error, and nothing
    // changed, when something has that name. What cannot be written whole is removed.
    [[nodiscard]] virtual Result<std::monostate> createFile(const std::string& name,
                                                            std::string_view bytes,
                                                            mode_t permissions) = 0;
    // Removes an item; a folder with its contents, but with another account's rights only an empty
    // one, since that account decides how much there is in it.
    virtual Result<std::monostate> remove(const std::string& name) = 0;
    // Of a file or a folder.
    virtual bool setPermissions(const std::string& name, mode_t permissions) = 0;

    // From now on everything is done with the file rights of this account and with no others, here
    // and in the folders that are opened from here. False when they cannot be taken on; then
    // nothing more can be done here.
    virtual bool takeRightsOf(std::uint32_t userId) = 0;
    // Whose rights are used; the daemon's own to begin with.
    [[nodiscard]] virtual Account account() = 0;

    // What a program that is launched takes the open folder over by: on this machine's own terms,
    // for its Processes alone.
    [[nodiscard]] virtual int descriptor() const = 0;
    // Where the folder was when it was opened: for texts, not to find it again by.
    [[nodiscard]] virtual std::string path() const = 0;
};

}  // namespace korvane
