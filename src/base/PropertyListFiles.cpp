// Reading property lists, and remembering what was read or written.

#include <fcntl.h>
#include <malloc.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <optional>

#include "base/BriefLock.h"
#include "base/PropertyListCodec.h"
#include "base/PropertyListFile.h"
#include "base/PropertyListMark.h"
#include "base/PropertyListTarget.h"
#include "base/SecondNames.h"

namespace korvane {

namespace {

// Larger ones are parsed again rather than held twice, and what they took is given back to the
// machine, since the heap keeps it otherwise.
constexpr std::size_t kLargestRememberedBytes = std::size_t{1024} * 1024;

void giveBackMemory(std::size_t textBytes) {
    if (textBytes > kLargestRememberedBytes) (void)malloc_trim(0);  // Whether anything was given.
}

bool isUnchanged(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           isSameMoment(a.st_ctim, b.st_ctim) && isSameMoment(a.st_mtim, b.st_mtim);
}

// The kernel stamps changes with a clock that stands still for some milliseconds (on some file
// systems for up to two seconds). A file changed that recently can change again without a trace.
bool isSettled(const struct stat& status) {
    timespec now{};
    (void)clock_gettime(CLOCK_REALTIME, &now);  // Cannot fail for this clock.
    constexpr time_t kCoarsestStampSeconds = 2;
    return now.tv_sec - status.st_ctim.tv_sec > kCoarsestStampSeconds;
}

// Whether this is all that is in the file. Another program may have written before the stamp.
bool holds(int fd, std::string_view text) {
    char bytes[4096];  // at a time: a larger buffer on the stack is memory for good
    off_t offset = 0;
    while (true) {
        const ssize_t count = pread(fd, bytes, sizeof bytes, offset);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return count == 0 && text.empty();
        const std::string_view part(bytes, static_cast<std::size_t>(count));
        if (!text.starts_with(part)) return false;
        text.remove_prefix(part.size());
        offset += count;
    }
}

// What an open file holds; what is wrong with it is said with its path.
Result<PropertyList> parse(int file, const std::string& path, const struct stat& status) {
    const auto text = readFully(file, path, status.st_size);
    if (!text) return text.error();
    // What a power cut has left: contents of an hour ago are better than a mixture.
    struct stat copy {};
    const bool hasCopy = lstat(keptCopyOf(path).c_str(), &copy) == 0;
    if (hasLostPages(file, status, *text, hasCopy ? &copy.st_mtim : nullptr)) {
        if (auto restored = restoreTorn(path, true)) return std::move(*restored);
    }
    auto value = parsePropertyList(*text);
    if (value) return value;
    // A kill leaves one NUL in front; anything else is somebody's, and stays.
    const bool isTornByKill =
        text->starts_with('\0') && !text->starts_with(std::string_view("\0\0", 2));
    if (auto restored = restoreTorn(path, isTornByKill)) return std::move(*restored);
    return Error{path + ": " + value.error().message};
}

}  // namespace

struct PropertyListFiles::Remembered {
    PropertyList value;
    struct stat status;
};

PropertyListFiles::PropertyListFiles() = default;
PropertyListFiles::~PropertyListFiles() = default;

Result<const PropertyList*> PropertyListFiles::load(const std::string& path, PropertyList& loaded,
                                                    bool isLocked) {
    const PropertyListPlace place(path);
    const auto folder = place.openFolder();
    if (!folder) return folder.error();
    struct stat status {};
    const auto file = openForReading(folder->get(), place.name, path, status);
    if (!file) return file.error();
    // What is read stays open whatever has the name then.
    if (status.st_nlink > 1) (void)leaveSecondNames(folder->get(), place.name);
    const auto known = remembered_.find(path);
    if (known != remembered_.end()) {
        if (isUnchanged(known->second.status, status)) return &known->second.value;
        remembered_.erase(known);
    }
    if (!isLocked) lockBriefly(file->get(), Sharing::readers);
    if (fstat(file->get(), &status) != 0) return fileError("looking at the file", path, errno);
    auto parsed = parse(file->get(), path, status);
    if (!parsed) return parsed.error();
    giveBackMemory(static_cast<std::size_t>(status.st_size));
    struct stat after {};
    const bool isCertain =
        fstat(file->get(), &after) == 0 && isUnchanged(status, after) && isSettled(after);
    if (!isCertain || static_cast<std::size_t>(after.st_size) > kLargestRememberedBytes) {
        loaded = std::move(*parsed);
        return &loaded;
    }
    return &remembered_.insert_or_assign(path, Remembered{std::move(*parsed), after})
                .first->second.value;
}

Result<PropertyList> PropertyListFiles::read(const std::string& path) {
    PropertyList loaded;
    const auto value = load(path, loaded, false);
    if (!value) return value.error();
    if (*value == &loaded) return loaded;
    return **value;
}

Result<std::monostate> PropertyListFiles::write(const std::string& path, const PropertyList& value,
                                                mode_t mode, Durability durability) {
    remembered_.erase(path);
    const std::string text = formatPropertyList(value);
    auto target = openTarget(path);
    if (!target) return target.error();
    std::optional<struct stat> written;
    auto outcome = writeTarget(*target, text, mode, durability, written);
    giveBackMemory(text.size());
    if (outcome && written && text.size() <= kLargestRememberedBytes &&
        holds(target->file.get(), text)) {
        remembered_.insert_or_assign(path, Remembered{value, *written});
    }
    return outcome;
}

Result<std::monostate> PropertyListFiles::change(const std::string& path,
                                                 const std::function<bool(PropertyList&)>& edit,
                                                 mode_t mode, Durability durability) {
    // Open, and so locked, from before the reading to after the writing.
    auto target = openTarget(path);
    if (!target) return target.error();
    if (!target->file) return fileError("opening", path, ENOENT);
    PropertyList loaded;
    const auto value = load(path, loaded, true);
    if (!value) return value.error();
    // Taken out before it is changed: should the edit throw, nothing wrong is remembered.
    auto node = remembered_.extract(path);
    if (!node.empty()) loaded = std::move(node.mapped().value);
    if (!edit(loaded)) {
        if (!node.empty()) {
            node.mapped().value = std::move(loaded);
            remembered_.insert(std::move(node));
        }
        return std::monostate{};
    }
    const std::string text = formatPropertyList(loaded);
    std::optional<struct stat> written;
    auto outcome = writeTarget(*target, text, mode, durability, written);
    if (outcome && written && text.size() <= kLargestRememberedBytes &&
        holds(target->file.get(), text)) {
        remembered_.insert_or_assign(path, Remembered{std::move(loaded), *written});
    }
    return outcome;
}

}  // namespace korvane
