// Property lists in files that several programs rewrite in place. One write keeps the file's inode,
// and a kill, a full disk or a power cut at any moment leaves whole contents to the next reader.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <variant>

#include "base/PropertyList.h"
#include "base/Result.h"

namespace korvane {

// Three times what the largest settings seen take; more is no property list of ours.
inline constexpr std::int64_t kLargestPropertyListBytes = 64 * 1024 * 1024;

enum class Durability {
    process,   // survives the end of this process; a power cut leaves this or what was an hour ago
    powerLoss  // is on the disk before the call returns
};

// The hidden file beside `path` that holds the new contents while they are written, and the one
// that stays: a copy of earlier contents, an hour old at most, that is on the disk.
[[nodiscard]] std::string savingSiblingOf(const std::string& path);
[[nodiscard]] std::string keptCopyOf(const std::string& path);
// Whether the name is that of such a file. Nobody but the daemon's user may write one.
[[nodiscard]] bool isCopyOfPropertyList(std::string_view name);

// Rewrites the regular file at `path` in place (or creates it) and gives it the permissions `mode`
// whatever the umask. On an error the old contents stand, or the next read restores the new ones.
// Never follows a link at `path` or at the files beside it.
[[nodiscard]] Result<std::monostate> writeInPlace(const std::string& path, std::string_view text,
                                                  mode_t mode, Durability durability);

// Reads and writes property lists at paths, and remembers what it last read or wrote at each, if it
// is small: a file that has not changed since (device, inode, size, change time) is not parsed
// again. Another program that keeps to the lock never sees half a write. One thread at a time.
class PropertyListFiles {
  public:
    PropertyListFiles();
    ~PropertyListFiles();
    PropertyListFiles(const PropertyListFiles&) = delete;
    PropertyListFiles& operator=(const PropertyListFiles&) = delete;

    // The parsed file. One that a write of ours left torn is restored from the whole copy beside
    // it; any other that does not parse stays as it is, byte for byte, and the error says what is
    // wrong.
    [[nodiscard]] Result<PropertyList> read(const std::string& path);
    [[nodiscard]] Result<std::monostate> write(const std::string& path, const PropertyList& value,
                                               mode_t mode, Durability durability);
    // Reads, lets `edit` change what was read, and writes the result, without copying it: the way
    // to touch one record of many. Other writers that lock are kept out meanwhile. `edit` is not
    // called when the file cannot be read; false from it says that it changed nothing, and nothing
    // is written.
    [[nodiscard]] Result<std::monostate> change(const std::string& path,
                                                const std::function<bool(PropertyList&)>& edit,
                                                mode_t mode, Durability durability);

  private:
    struct Remembered;
    // The value remembered for the path, or else `loaded` with what the file holds.
    Result<const PropertyList*> load(const std::string& path, PropertyList& loaded, bool isLocked);

    std::map<std::string, Remembered> remembered_;
};

}  // namespace korvane
