// How a write goes, and what a kill or a failure leaves at each step:
//
//   1. the part file ".NAME.saving.part" is written whole       the old file, untouched
//   2. it is renamed to the sibling ".NAME.saving"              the old file, untouched
//   3. the file's first byte becomes NUL                        nothing that parses; the sibling
//   4. bytes 1 to the end are written, the file is cut          the same
//   5. the file's first byte is written                         the new file
//   6. the sibling is removed                                   the new file
//
// For Durability::powerLoss each step is on the disk before the next one begins, since the kernel
// writes back a file's pages in any order. A file that does not exist yet is the part file renamed.
// Writers that use this code keep out of each other's way by an advisory lock on the file.
#include "base/PropertyListFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "base/BriefLock.h"
#include "base/PropertyListCodec.h"
#include "base/SecondNames.h"

namespace korvane {

namespace {

class UniqueFd {
  public:
    explicit UniqueFd(int fd = -1) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() {
        if (fd_ >= 0) (void)close(fd_);  // Everything that matters was written or synced before.
    }
    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] explicit operator bool() const { return fd_ >= 0; }

  private:
    int fd_;
};

Error errorFor(std::string_view doing, std::string_view path, int number) {
    return {std::string(path) + ": " + std::string(doing) + ": " +
            std::generic_category().message(number)};
}

// The path cut into its folder and the names used in it.
struct Place {
    explicit Place(const std::string& path) {
        const std::size_t slash = path.rfind('/');
        folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
        name = slash == std::string::npos ? path : path.substr(slash + 1);
        sibling = "." + name + ".saving";
        part = sibling + ".part";
    }
    std::string folder;
    std::string name;
    std::string sibling;
    std::string part;
};

// All names are looked up in one folder that is opened once, so that nobody can exchange the folder
// between two steps.
Result<UniqueFd> openFolder(const Place& place) {
    UniqueFd folder(open(place.folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder) return errorFor("opening the folder", place.folder, errno);
    return folder;
}

// O_NONBLOCK: a FIFO or a device in the file's place must not hold us up before it is refused.
constexpr int kCarefully = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

// Why the open file is not one to read or write, or null. A second name could be that of any other
// file on the volume, planted here to have it overwritten.
const char* objectionTo(const struct stat& status) {
    if (!S_ISREG(status.st_mode)) return "is not a regular file";
    if (status.st_nlink > 1) return "has a second name";
    if (status.st_size > kLargestPropertyListBytes) return "is too large";
    return nullptr;
}

int writeFully(int fd, std::string_view bytes, off_t offset) {
    while (!bytes.empty()) {
        const ssize_t written = pwrite(fd, bytes.data(), bytes.size(), offset);
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return errno;
        bytes.remove_prefix(static_cast<std::size_t>(written));
        offset += written;
    }
    return 0;
}

Result<std::string> readFully(int fd, const std::string& path, off_t expectedBytes) {
    // One byte more than expected, so that the end is met in one call.
    std::string text(static_cast<std::size_t>(expectedBytes) + 1, '\0');
    std::size_t length = 0;
    while (true) {
        const ssize_t count =
            pread(fd, text.data() + length, text.size() - length, static_cast<off_t>(length));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return errorFor("reading", path, errno);
        if (count == 0) break;
        length += static_cast<std::size_t>(count);
        if (length > static_cast<std::size_t>(kLargestPropertyListBytes)) {
            return Error{path + ": is too large"};
        }
        if (length == text.size()) text.resize(length * 2);  // It grows while it is read.
    }
    text.resize(length);
    return text;
}

// Syncs when the caller asked for it; the errno of what failed, or 0.
int settle(int fd, Durability durability) {
    return durability == Durability::powerLoss && fsync(fd) != 0 ? errno : 0;
}

// A new file that holds the text and has the permissions, whatever the umask.
int writePart(int folder, const Place& place, std::string_view text, mode_t mode,
              Durability durability) {
    const auto create = [&] {
        return UniqueFd(openat(folder, place.part.c_str(), O_WRONLY | O_CREAT | O_EXCL | kCarefully,
                               S_IRUSR | S_IWUSR));
    };
    UniqueFd part = create();
    if (!part && errno == EEXIST) {
        // What a kill left, or what somebody planted; as a name in our folder it is ours to remove.
        if (unlinkat(folder, place.part.c_str(), 0) != 0) return errno;
        part = create();
    }
    if (!part) return errno;
    int failure = writeFully(part.get(), text, 0);
    if (failure == 0 && fchmod(part.get(), mode) != 0) failure = errno;
    if (failure == 0) failure = settle(part.get(), durability);
    if (failure != 0) (void)unlinkat(folder, place.part.c_str(), 0);  // The failure counts.
    return failure;
}

// Steps 3 to 5. On an error the file may be left with a NUL in front, never with a mixture.
int overwrite(int fd, std::string_view text, Durability durability) {
    int failure = writeFully(fd, std::string_view("\0", 1), 0);
    if (failure == 0) failure = settle(fd, durability);
    if (failure == 0) failure = writeFully(fd, text.substr(1), 1);
    if (failure == 0 && ftruncate(fd, static_cast<off_t>(text.size())) != 0) failure = errno;
    if (failure == 0) failure = settle(fd, durability);
    if (failure == 0) failure = writeFully(fd, text.substr(0, 1), 0);
    if (failure == 0) failure = settle(fd, durability);
    return failure;
}

// Gives the part file the path's name unless something has it by now (EEXIST).
int publish(int folder, const Place& place) {
    if (renameat2(folder, place.part.c_str(), folder, place.name.c_str(), RENAME_NOREPLACE) == 0) {
        return 0;
    }
    if (errno != EINVAL && errno != ENOSYS) return errno;
    // A file system without that flag; nothing had the name a moment ago.
    return renameat(folder, place.part.c_str(), folder, place.name.c_str()) == 0 ? 0 : errno;
}

struct Written {
    UniqueFd file;  // Open on what the path now names.
};

Result<Written> createFile(int folder, const Place& place, const std::string& path,
                           std::string_view text, mode_t mode, Durability durability) {
    int failure = writePart(folder, place, text, mode, durability);
    if (failure != 0) return errorFor("writing", path, failure);
    failure = publish(folder, place);
    if (failure != 0) {
        (void)unlinkat(folder, place.part.c_str(), 0);  // The failure counts.
        return errorFor("creating", path, failure);
    }
    // A sibling of a file that was deleted since says nothing about this one.
    (void)unlinkat(folder, place.sibling.c_str(), 0);
    failure = settle(folder, durability);
    if (failure != 0) return errorFor("syncing the folder", path, failure);
    return Written{UniqueFd(openat(folder, place.name.c_str(), O_RDWR | kCarefully))};
}

// Steps 1 and 2; what the file was like before.
Result<struct stat> putSibling(int folder, const Place& place, const std::string& path, int file,
                               std::string_view text, mode_t mode, Durability durability) {
    lockBriefly(file);
    int failure = writePart(folder, place, text, mode, durability);
    if (failure != 0) return errorFor("writing the sibling", path, failure);
    struct stat status {};
    if (fstat(file, &status) != 0) return errorFor("looking at the file", path, errno);
    const auto length = static_cast<off_t>(text.size());
    // The space first: on a full disk the old contents then stand for every reader. Where space
    // cannot be had in advance the write itself will tell.
    if (length > status.st_size && fallocate(file, FALLOC_FL_KEEP_SIZE, 0, length) != 0 &&
        (errno == ENOSPC || errno == EDQUOT || errno == EFBIG)) {
        failure = errno;
        (void)unlinkat(folder, place.part.c_str(), 0);  // The failure counts.
        return errorFor("writing", path, failure);
    }
    if (renameat(folder, place.part.c_str(), folder, place.sibling.c_str()) != 0) {
        failure = errno;
        (void)unlinkat(folder, place.part.c_str(), 0);  // The failure counts.
        return errorFor("creating the sibling", path, failure);
    }
    failure = settle(folder, durability);
    if (failure != 0) return errorFor("writing", path, failure);
    return status;
}

// Only a file's owner may set its permissions; another's stay as that one has them.
int givePermissions(int file, mode_t before, mode_t mode) {
    return (before & 07777) != mode && fchmod(file, mode) != 0 && errno != EPERM ? errno : 0;
}

Result<Written> rewriteFile(int folder, const Place& place, const std::string& path, UniqueFd file,
                            std::string_view text, mode_t mode, Durability durability) {
    const auto before = putSibling(folder, place, path, file.get(), text, mode, durability);
    if (!before) return before.error();
    int failure = overwrite(file.get(), text, durability);
    if (failure != 0) return errorFor("writing", path, failure);
    failure = givePermissions(file.get(), before->st_mode, mode);
    if (failure != 0) return errorFor("setting the permissions", path, failure);
    // One that stays is older than or equal to the file and is looked at only if that is torn.
    (void)unlinkat(folder, place.sibling.c_str(), 0);
    return Written{std::move(file)};
}

// Open on nothing when there is no such file.
Result<UniqueFd> openForWriting(int folder, const Place& place, const std::string& path) {
    const auto open = [&] {
        return UniqueFd(openat(folder, place.name.c_str(), O_RDWR | kCarefully));
    };
    UniqueFd file = open();
    struct stat status {};
    if (file && fstat(file.get(), &status) == 0 && status.st_nlink > 1) {
        (void)leaveSecondNames(folder, place.name);  // one that still has some is refused below
        file = open();
    }
    if (!file && errno == ENOENT) return file;
    if (!file) return errorFor("opening", path, errno);
    if (fstat(file.get(), &status) != 0) return errorFor("looking at the file", path, errno);
    const char* objection = objectionTo(status);
    if (objection != nullptr) return Error{path + ": " + objection};
    return file;
}

Result<Written> writeAt(const std::string& path, std::string_view text, mode_t mode,
                        Durability durability) {
    if (text.empty()) return Error{path + ": nothing to write"};
    const Place place(path);
    auto folder = openFolder(place);
    if (!folder) return folder.error();
    auto file = openForWriting(folder->get(), place, path);
    if (!file) return file.error();
    if (!*file) return createFile(folder->get(), place, path, text, mode, durability);
    return rewriteFile(folder->get(), place, path, std::move(*file), text, mode, durability);
}

bool isSameMoment(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
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

// Stamps the file just written with a modification time between two ticks of the kernel's clock,
// which a later change, however soon, cannot leave as it is. Whether that worked. A change before
// the stamp passes unseen: holds() tells.
bool stamp(int fd, struct stat& status) {
    timespec times[2] = {};
    times[0].tv_nsec = UTIME_OMIT;
    timespec tick{};
    (void)clock_gettime(CLOCK_REALTIME_COARSE, &tick);  // Neither can fail for these clocks.
    (void)clock_gettime(CLOCK_REALTIME, &times[1]);
    if (isSameMoment(tick, times[1])) times[1].tv_nsec ^= 1;
    return futimens(fd, times) == 0 && fstat(fd, &status) == 0 &&
           isSameMoment(status.st_mtim, times[1]);
}

// Whether this is all that is in the file.
bool holds(int fd, std::string_view text) {
    char bytes[64 * 1024];  // at a time
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

}  // namespace

std::string savingSiblingOf(const std::string& path) {
    const Place place(path);
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? place.sibling : path.substr(0, slash + 1) + place.sibling;
}

Result<std::monostate> writeInPlace(const std::string& path, std::string_view text, mode_t mode,
                                    Durability durability) {
    const auto written = writeAt(path, text, mode, durability);
    if (!written) return written.error();
    return std::monostate{};
}

struct PropertyListFiles::Remembered {
    PropertyList value;
    struct stat status;
};

namespace {

struct Opened {
    UniqueFd file;
    struct stat status;
};

Result<Opened> openForReading(int folder, const std::string& name, const std::string& path) {
    Opened opened{UniqueFd(openat(folder, name.c_str(), O_RDONLY | kCarefully)), {}};
    if (!opened.file) return errorFor("opening", path, errno);
    if (fstat(opened.file.get(), &opened.status) != 0) {
        return errorFor("looking at the file", path, errno);
    }
    if (!S_ISREG(opened.status.st_mode)) return Error{path + ": is not a regular file"};
    if (opened.status.st_size > kLargestPropertyListBytes) return Error{path + ": is too large"};
    return opened;
}

struct Parsed {
    PropertyList value;
    std::string text;
};

Result<Parsed> parseOpened(const Opened& opened, const std::string& path) {
    auto text = readFully(opened.file.get(), path, opened.status.st_size);
    if (!text) return text.error();
    auto value = parsePropertyList(*text);
    if (!value) return Error{path + ": " + value.error().message};
    return Parsed{std::move(*value), std::move(*text)};
}

// The complete sibling of a file that does not parse, put back in its place. Nothing when there is
// none that can be trusted; when putting it back fails it stays, and what it holds counts.
std::optional<PropertyList> restore(int folder, const Place& place, const std::string& path) {
    auto sibling = openForReading(folder, place.sibling, path);
    if (!sibling || objectionTo(sibling->status) != nullptr ||
        sibling->status.st_uid != geteuid()) {
        return std::nullopt;
    }
    auto parsed = parseOpened(*sibling, path);
    if (!parsed) return std::nullopt;
    UniqueFd file(openat(folder, place.name.c_str(), O_RDWR | kCarefully));
    struct stat status {};
    if (file && fstat(file.get(), &status) == 0 && objectionTo(status) == nullptr &&
        overwrite(file.get(), parsed->text, Durability::powerLoss) == 0) {
        (void)fchmod(file.get(),
                     sibling->status.st_mode & 07777);     // As a write would have left it.
        (void)unlinkat(folder, place.sibling.c_str(), 0);  // A stale one does no harm.
    }
    return std::move(parsed->value);
}

}  // namespace

PropertyListFiles::PropertyListFiles() = default;
PropertyListFiles::~PropertyListFiles() = default;

Result<const PropertyList*> PropertyListFiles::load(const std::string& path, PropertyList& loaded) {
    const Place place(path);
    auto folder = openFolder(place);
    if (!folder) return folder.error();
    auto opened = openForReading(folder->get(), place.name, path);
    if (!opened) return opened.error();
    // What is read stays open whatever has the name then.
    if (opened->status.st_nlink > 1) (void)leaveSecondNames(folder->get(), place.name);
    const auto known = remembered_.find(path);
    if (known != remembered_.end()) {
        if (isUnchanged(known->second.status, opened->status)) return &known->second.value;
        remembered_.erase(known);
    }
    auto parsed = parseOpened(*opened, path);
    if (!parsed) {
        // Perhaps in the middle of a write; the lock is free when that is over.
        lockBriefly(opened->file.get());
        auto again = parseOpened(*opened, path);
        if (!again) {
            auto restored = restore(folder->get(), place, path);
            if (!restored) return again.error();
            loaded = std::move(*restored);
            return &loaded;
        }
        parsed = std::move(again);
    }
    struct stat after {};
    const bool isCertain = fstat(opened->file.get(), &after) == 0 &&
                           isUnchanged(opened->status, after) && isSettled(after);
    if (!isCertain) {
        loaded = std::move(parsed->value);
        return &loaded;
    }
    return &remembered_.insert_or_assign(path, Remembered{std::move(parsed->value), after})
                .first->second.value;
}

Result<PropertyList> PropertyListFiles::read(const std::string& path) {
    PropertyList loaded;
    const auto value = load(path, loaded);
    if (!value) return value.error();
    if (*value == &loaded) return loaded;
    return **value;
}

Result<std::monostate> PropertyListFiles::write(const std::string& path, PropertyList value,
                                                mode_t mode, Durability durability) {
    remembered_.erase(path);
    const std::string text = formatPropertyList(value);
    const auto written = writeAt(path, text, mode, durability);
    if (!written) return written.error();
    struct stat status {};
    if (written->file && stamp(written->file.get(), status) && holds(written->file.get(), text)) {
        remembered_.insert_or_assign(path, Remembered{std::move(value), status});
    }
    return std::monostate{};
}

Result<std::monostate> PropertyListFiles::change(const std::string& path,
                                                 const std::function<bool(PropertyList&)>& edit,
                                                 mode_t mode, Durability durability) {
    PropertyList loaded;
    const auto value = load(path, loaded);
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
    return write(path, std::move(loaded), mode, durability);
}

struct PropertyListFiles::Steps {
    std::size_t done = 0;
    std::size_t count = 0;
    const std::function<bool(PropertyList&, std::size_t step)>& edit;
    mode_t mode = 0;
    Durability durability = Durability::process;
};

Result<std::monostate> PropertyListFiles::changeInSteps(
    const std::string& path, std::size_t count,
    const std::function<bool(PropertyList&, std::size_t step)>& edit, mode_t mode,
    Durability durability) {
    Steps steps{.count = count, .edit = edit, .mode = mode, .durability = durability};
    while (steps.done < count) {
        PropertyList value;
        const auto loaded = load(path, value);
        if (!loaded) return loaded.error();
        auto node = remembered_.extract(path);
        if (!node.empty()) value = std::move(node.mapped().value);
        PropertyList last = value;
        for (std::size_t step = steps.done; step < count; ++step) {
            if (!edit(last, step)) return std::monostate{};
        }
        const auto written = writeSteps(path, std::move(value), formatPropertyList(last), steps);
        if (!written) return written.error();
    }
    return std::monostate{};
}

Result<std::monostate> PropertyListFiles::writeSteps(const std::string& path, PropertyList value,
                                                     const std::string& last, Steps& steps) {
    const Place place(path);
    auto folder = openFolder(place);
    if (!folder) return folder.error();
    auto file = openForWriting(folder->get(), place, path);
    if (!file) return file.error();
    if (!*file) return errorFor("opening", path, ENOENT);
    const auto before =
        putSibling(folder->get(), place, path, file->get(), last, steps.mode, steps.durability);
    if (!before) return before.error();
    int failure = givePermissions(file->get(), before->st_mode, steps.mode);
    struct stat written {};
    struct stat now {};
    const auto isStillOurs = [&] {
        return fstatat(folder->get(), place.name.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0 &&
               isUnchanged(written, now);
    };
    for (bool isFirst = true; steps.done < steps.count; isFirst = false) {
        (void)steps.edit(value, steps.done);
        const bool isLast = steps.done + 1 == steps.count;
        const std::string text = isLast ? std::string() : formatPropertyList(value);
        if (!isFirst && !isStillOurs()) break;
        if (failure == 0) failure = overwrite(file->get(), isLast ? last : text, steps.durability);
        if (failure != 0) return errorFor("writing", path, failure);
        ++steps.done;
        if (!stamp(file->get(), written)) written = {};  // equal to nothing: read it again
    }
    (void)unlinkat(folder->get(), place.sibling.c_str(), 0);  // A stale one does no harm.
    if (steps.done == steps.count && isStillOurs() && holds(file->get(), last)) {
        remembered_.insert_or_assign(path, Remembered{std::move(value), written});
    }
    return std::monostate{};
}

}  // namespace korvane
