// How a rewriting goes, and what a kill or a failure leaves at each step:
//
//   1. the part file ".NAME.saving.part" is written whole       the old file, untouched
//   2. it is renamed to the sibling ".NAME.saving"              the old file, untouched
//   3. the file's first byte becomes NUL                        nothing that parses; the sibling
//   4. bytes 1 to the end are written, the file is cut          the same
//   5. the file's first byte is written                         the new file
//   6. the sibling is removed                                   the new file
//
// Nothing of this is flushed. For a power cut there is the kept copy ".NAME.kept", which is whole
// and on the disk at any moment. Where the contents must be on the disk, and an hour after the last
// time, the part file is synced and becomes the kept copy instead of the sibling, and stays. Since
// the kernel writes back a file's pages in any order, what a power cut leaves in the file may be a
// mixture, even one that parses: the mark (PropertyListMark.h) shows it. On a file system that
// cannot carry marks each step is on the disk before the next one begins.
//
// A file that does not exist yet is the part file renamed. Writers that use this code keep out of
// each other's way by an advisory lock on the file.
#include "base/PropertyListFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

#include "base/BriefLock.h"
#include "base/PropertyListCodec.h"
#include "base/PropertyListMark.h"
#include "base/PropertyListTarget.h"
#include "base/SecondNames.h"

namespace korvane {

namespace {

constexpr time_t kLongestUnsyncedSeconds = 60 * 60;
// Nobody but this user may touch what a torn file is restored from.
constexpr mode_t kCopyPermissions = S_IRUSR | S_IWUSR;

enum class Sync { no, yes };

// The errno of what failed, or 0.
int settle(int fd, Sync sync) { return sync == Sync::yes && fsync(fd) != 0 ? errno : 0; }

// A new file that holds the text and has the permissions, whatever the umask.
int writePart(const PropertyListTarget& target, std::string_view text, mode_t mode, Sync sync) {
    const int folder = target.folder.get();
    const std::string& name = target.place.part;
    OpenFile part = openCarefully(folder, name, O_WRONLY | O_CREAT | O_EXCL);
    if (!part && errno == EEXIST) {
        // What a kill left, or what somebody planted; as a name in our folder it is ours to remove.
        if (unlinkat(folder, name.c_str(), 0) != 0) return errno;
        part = openCarefully(folder, name, O_WRONLY | O_CREAT | O_EXCL);
    }
    if (!part) return errno;
    int failure = writeFully(part.get(), text, 0);
    if (failure == 0 && fchmod(part.get(), mode) != 0) failure = errno;
    if (failure == 0 && sync == Sync::yes) stampNow(part.get());
    if (failure == 0) failure = settle(part.get(), sync);
    if (failure != 0) (void)unlinkat(folder, name.c_str(), 0);  // The failure counts.
    return failure;
}

// Steps 3 to 5. On an error the file may be left with a NUL in front, never with a mixture.
int overwrite(int fd, std::string_view text, Sync sync) {
    int failure = writeFully(fd, std::string_view("\0", 1), 0);
    if (failure == 0) failure = settle(fd, sync);
    if (failure == 0) failure = writeFully(fd, text.substr(1), 1);
    if (failure == 0 && ftruncate(fd, static_cast<off_t>(text.size())) != 0) failure = errno;
    if (failure == 0) failure = settle(fd, sync);
    if (failure == 0) failure = writeFully(fd, text.substr(0, 1), 0);
    if (failure == 0) failure = settle(fd, sync);
    return failure;
}

// Gives the part file this name in place of whatever has it; on the disk, if asked for.
int renamePart(const PropertyListTarget& target, const std::string& name, Sync sync) {
    const int folder = target.folder.get();
    if (renameat(folder, target.place.part.c_str(), folder, name.c_str()) == 0) {
        return settle(folder, sync);
    }
    const int failure = errno;
    (void)unlinkat(folder, target.place.part.c_str(), 0);  // The failure counts.
    return failure;
}

// Gives the part file the path's name unless something has it by now (EEXIST).
int publish(const PropertyListTarget& target) {
    const int folder = target.folder.get();
    const char* const part = target.place.part.c_str();
    const char* const name = target.place.name.c_str();
    if (renameat2(folder, part, folder, name, RENAME_NOREPLACE) == 0) return 0;
    if (errno != EINVAL && errno != ENOSYS) return errno;
    // A file system without that flag; nothing had the name a moment ago.
    return renameat(folder, part, folder, name) == 0 ? 0 : errno;
}

Result<std::monostate> createFile(PropertyListTarget& target, std::string_view text, mode_t mode) {
    const std::string& path = target.place.path;
    const int folder = target.folder.get();
    int failure = writePart(target, text, mode, Sync::yes);
    if (failure != 0) return fileError("writing", path, failure);
    failure = publish(target);
    if (failure != 0) {
        (void)unlinkat(folder, target.place.part.c_str(), 0);  // The failure counts.
        return fileError("creating", path, failure);
    }
    // Copies of a file that was deleted since say nothing about this one.
    (void)unlinkat(folder, target.place.sibling.c_str(), 0);
    (void)unlinkat(folder, target.place.kept.c_str(), 0);
    failure = settle(folder, Sync::yes);
    if (failure != 0) return fileError("syncing the folder", path, failure);
    target.file = openCarefully(folder, target.place.name, O_RDWR);
    return std::monostate{};
}

// Whether the kept copy is missing, or older than it may be. One of the future was made before the
// clock was set back.
bool isCopyDue(const PropertyListTarget& target) {
    struct stat status {};
    if (fstatat(target.folder.get(), target.place.kept.c_str(), &status, AT_SYMLINK_NOFOLLOW) !=
        0) {
        return true;
    }
    timespec now{};
    (void)clock_gettime(CLOCK_REALTIME, &now);  // Cannot fail for this clock.
    const time_t age = now.tv_sec - status.st_mtim.tv_sec;
    // What others may write is not restored from.
    return !S_ISREG(status.st_mode) || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0 || age < 0 ||
           age >= kLongestUnsyncedSeconds;
}

// The space first: on a full disk the old contents then stand for every reader. Where space cannot
// be had in advance the write itself will tell.
int reserve(int file, off_t before, off_t length) {
    if (length <= before || fallocate(file, FALLOC_FL_KEEP_SIZE, 0, length) == 0) return 0;
    return errno == ENOSPC || errno == EDQUOT || errno == EFBIG ? errno : 0;
}

// Steps 1 and 2, or the kept copy: until the file is written, one of them holds its text.
Result<std::monostate> putCopy(const PropertyListTarget& target, std::string_view text,
                               bool isForGood, Sync sync) {
    const std::string& path = target.place.path;
    int failure = writePart(target, text, kCopyPermissions, sync);
    if (failure != 0) return fileError("writing the copy", path, failure);
    failure = renamePart(target, isForGood ? target.place.kept : target.place.sibling, sync);
    if (failure != 0) return fileError("creating the copy", path, failure);
    // An older sibling, which a failure has left, must not be what a kill goes back to.
    if (isForGood && unlinkat(target.folder.get(), target.place.sibling.c_str(), 0) != 0 &&
        errno != ENOENT) {
        return fileError("removing the sibling", path, errno);
    }
    return std::monostate{};
}

// Only a file's owner may set its permissions; another's stay as that one has them.
int givePermissions(int file, mode_t before, mode_t mode) {
    return (before & 07777) != mode && fchmod(file, mode) != 0 && errno != EPERM ? errno : 0;
}

Result<std::monostate> rewriteFile(const PropertyListTarget& target, std::string_view text,
                                   mode_t mode, Durability durability,
                                   std::optional<struct stat>& written) {
    const std::string& path = target.place.path;
    const int file = target.file.get();
    struct stat status {};
    if (fstat(file, &status) != 0) return fileError("looking at the file", path, errno);
    const bool isForGood = durability == Durability::powerLoss || isCopyDue(target);
    const auto copied = putCopy(target, text, isForGood, isForGood ? Sync::yes : Sync::no);
    if (!copied) return copied.error();
    const std::uint64_t fingerprint = fingerprintOf(text);
    const Sync sync = markWriting(file, fingerprint) ? Sync::no : Sync::yes;
    if (sync == Sync::yes && !isForGood) {
        const auto synced = putCopy(target, text, true, Sync::yes);
        if (!synced) return synced.error();
    }
    // After the mark: it changes the file's time already.
    int failure = reserve(file, status.st_size, static_cast<off_t>(text.size()));
    if (failure != 0) {
        unmark(file);
        (void)unlinkat(target.folder.get(), target.place.sibling.c_str(),
                       0);  // The failure counts.
        return fileError("writing", path, failure);
    }
    failure = overwrite(file, text, sync);
    if (failure != 0) return fileError("writing", path, failure);
    failure = givePermissions(file, status.st_mode, mode);
    if (failure != 0) return fileError("setting the permissions", path, failure);
    // One that stays is older than or equal to the file and is looked at only if that is torn.
    if (!isForGood) (void)unlinkat(target.folder.get(), target.place.sibling.c_str(), 0);
    if (markWritten(file, fingerprint, status)) written = status;
    return std::monostate{};
}

}  // namespace

std::string savingSiblingOf(const std::string& path) {
    return path.substr(0, path.rfind('/') + 1) + PropertyListPlace(path).sibling;
}

std::string keptCopyOf(const std::string& path) {
    return path.substr(0, path.rfind('/') + 1) + PropertyListPlace(path).kept;
}

bool isCopyOfPropertyList(std::string_view name) {
    return name.starts_with('.') && (name.ends_with(kSavingEnd) || name.ends_with(kKeptEnd));
}

Result<PropertyListTarget> openTarget(const std::string& path) {
    PropertyListTarget target{PropertyListPlace(path), OpenFile(), OpenFile()};
    auto folder = target.place.openFolder();
    if (!folder) return folder.error();
    target.folder = std::move(*folder);
    const auto open = [&target] {
        target.file = openCarefully(target.folder.get(), target.place.name, O_RDWR);
    };
    open();
    struct stat status {};
    if (target.file && fstat(target.file.get(), &status) == 0 && status.st_nlink > 1) {
        (void)leaveSecondNames(target.folder.get(), target.place.name);  // or it is refused below
        open();
    }
    if (!target.file) {
        if (errno == ENOENT) return target;
        return fileError("opening", path, errno);
    }
    if (fstat(target.file.get(), &status) != 0) {
        return fileError("looking at the file", path, errno);
    }
    if (const char* objection = objectionTo(status)) return Error{path + ": " + objection};
    lockBriefly(target.file.get(), Sharing::none);
    return target;
}

Result<std::monostate> writeTarget(PropertyListTarget& target, std::string_view text, mode_t mode,
                                   Durability durability, std::optional<struct stat>& written) {
    if (text.empty()) return Error{target.place.path + ": nothing to write"};
    if (target.file) return rewriteFile(target, text, mode, durability, written);
    auto created = createFile(target, text, mode);
    struct stat status {};
    if (created && target.file && markWritten(target.file.get(), fingerprintOf(text), status)) {
        written = status;
    }
    return created;
}

Result<std::monostate> writeInPlace(const std::string& path, std::string_view text, mode_t mode,
                                    Durability durability) {
    auto target = openTarget(path);
    if (!target) return target.error();
    std::optional<struct stat> unneeded;
    return writeTarget(*target, text, mode, durability, unneeded);
}

Result<OpenFile> openForReading(int folder, const std::string& name, const std::string& path,
                                struct stat& status) {
    OpenFile file = openCarefully(folder, name, O_RDONLY);
    if (!file) return fileError("opening", path, errno);
    if (fstat(file.get(), &status) != 0) return fileError("looking at the file", path, errno);
    if (!S_ISREG(status.st_mode)) return Error{path + ": is not a regular file"};
    if (status.st_size > kLargestPropertyListBytes) return Error{path + ": is too large"};
    return file;
}

std::optional<PropertyList> restoreTorn(const std::string& path, bool mayUseKept) {
    const PropertyListPlace place(path);
    auto folder = place.openFolder();
    if (!folder) return std::nullopt;
    for (const std::string& name : {place.sibling, place.kept}) {
        if (name == place.kept && !mayUseKept) break;
        struct stat status {};
        const auto copy = openForReading(folder->get(), name, path, status);
        // What others may write, or have put there, is no copy of ours.
        if (!copy || objectionTo(status) != nullptr || status.st_uid != geteuid() ||
            (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
            continue;
        }
        const auto text = readFully(copy->get(), path, status.st_size);
        if (!text) continue;
        auto value = parsePropertyList(*text);
        if (!value) continue;
        const OpenFile file = openCarefully(folder->get(), place.name, O_RDWR);
        const std::uint64_t fingerprint = fingerprintOf(*text);
        if (file && fstat(file.get(), &status) == 0 && objectionTo(status) == nullptr &&
            (static_cast<void>(markWriting(file.get(), fingerprint)),
             overwrite(file.get(), *text, Sync::yes) == 0)) {
            (void)markWritten(file.get(), fingerprint, status);  // Synced, so not needed for now.
            (void)unlinkat(folder->get(), place.sibling.c_str(), 0);  // A stale one does no harm.
        }
        return std::move(*value);
    }
    return std::nullopt;
}

}  // namespace korvane
