// Property lists in files that several programs rewrite in place. One write keeps the file's inode,
// and a kill or a full disk at any moment leaves the old or the new contents to the next reader.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "base/PropertyList.h"
#include "base/Result.h"

namespace korvane {

// Three times what the largest settings seen take; more is no property list of ours.
inline constexpr std::int64_t kLargestPropertyListBytes = 64 * 1024 * 1024;

enum class Durability {
    process,   // survives the end of this process
    powerLoss  // is on the disk before the call returns
};

// The hidden file beside `path` that holds the new contents while they are written.
[[nodiscard]] std::string savingSiblingOf(const std::string& path);

// Rewrites the regular file at `path` in place (or creates it) and gives it the permissions `mode`
// whatever the umask. The new text first goes whole to the sibling; then into the file, its first
// byte last, so that no mixture of old and new ever parses; then the file is cut to its length and
// the sibling removed. On an error the old contents stand, or the sibling does and the next read
// restores it. Never follows a link at `path` or at the sibling.
[[nodiscard]] Result<std::monostate> writeInPlace(const std::string& path, std::string_view text,
                                                  mode_t mode, Durability durability);

// Reads and writes property lists at paths, and remembers what it last read or wrote at each: a
// file that has not changed since (device, inode, size, change time) is not parsed again. One
// thread at a time.
class PropertyListFiles {
  public:
    PropertyListFiles();
    ~PropertyListFiles();
    PropertyListFiles(const PropertyListFiles&) = delete;
    PropertyListFiles& operator=(const PropertyListFiles&) = delete;

    // The parsed file. A file that does not parse while a complete sibling stands is restored from
    // it; without one it stays as it is, byte for byte, and the error says what is wrong.
    [[nodiscard]] Result<PropertyList> read(const std::string& path);
    // Hand the value over by std::move where it is not needed any more: that saves a copy.
    [[nodiscard]] Result<std::monostate> write(const std::string& path, PropertyList value,
                                               mode_t mode, Durability durability);
    // Reads, lets `edit` change what was read, and writes the result, without copying it: the way
    // to touch one record of many. `edit` is not called when the file cannot be read; false
    // from it says that it changed nothing, and nothing is written.
    [[nodiscard]] Result<std::monostate> change(const std::string& path,
                                                const std::function<bool(PropertyList&)>& edit,
                                                mode_t mode, Durability durability);

    // Makes so many changes, one after the other, and writes the file after each, with one sibling
    // for all of them: it holds what the last one leaves, so that a kill at any moment loses none.
    // `edit` may be called several times for a step and must do the same each time; false from it
    // ends all of this with nothing more written. What another program writes in between is kept.
    [[nodiscard]] Result<std::monostate> changeInSteps(
        const std::string& path, std::size_t steps,
        const std::function<bool(PropertyList&, std::size_t step)>& edit, mode_t mode,
        Durability durability);

  private:
    struct Remembered;
    // The value remembered for the path, or else `loaded` with what the file holds.
    Result<const PropertyList*> load(const std::string& path, PropertyList& loaded);
    struct Steps;
    // Writes steps until the last, or until another program has written.
    Result<std::monostate> writeSteps(const std::string& path, PropertyList value,
                                      const std::string& last, Steps& steps);

    std::map<std::string, Remembered> remembered_;
};

}  // namespace korvane
