#include "platform/linux/LinuxDirectoryWatch.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <utility>

#include "platform/VolumeOfPath.h"
#include "platform/linux/MountTable.h"
#include "platform/linux/OpenFolder.h"

namespace korvane {

namespace {

// What comes and goes, and what is complete only some time after it came. Changed attributes are
// left out: the daemon's own stamps would wake it.
constexpr std::uint32_t kItemsChanged =
    IN_CREATE | IN_CLOSE_WRITE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
constexpr std::uint32_t kFolderWent = IN_DELETE_SELF | IN_MOVE_SELF;
constexpr char kBackupDateAttribute[] = "user.korvane.backup-date";
constexpr char kHomeTrash[] = "/.local/share/Trash/files";

// The names in a folder, sorted; none when it cannot be read.
std::vector<std::string> namesIn(const std::string& path) {
    std::vector<std::string> names;
    const FolderStream folder = streamOf(openFolderAt(AT_FDCWD, path));
    while (const dirent* entry = folder ? ::readdir(folder.get()) : nullptr) {
        names.emplace_back(entry->d_name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::optional<uid_t> userNumber(std::string_view text) {
    uid_t number = 0;
    const char* const end = text.data() + text.size();
    const auto read = std::from_chars(text.data(), end, number);
    const bool isWhole = read.ec == std::errc{} && read.ptr == end;
    // Zeros in front make another name.
    return isWhole && text == std::to_string(number) ? std::optional(number) : std::nullopt;
}

// Where the path leads with every link followed; nothing when there is nothing.
std::optional<std::string> realPath(const std::string& path) {
    const std::unique_ptr<char, decltype(&::free)> real{::realpath(path.c_str(), nullptr), &::free};
    return real ? std::optional<std::string>(real.get()) : std::nullopt;
}

// As they are mounted, everything has one owner.
bool keepsOwners(std::string_view typeName) {
    constexpr std::array<std::string_view, 6> kOwnerless{"exfat", "fuseblk", "msdos",
                                                         "ntfs",  "ntfs3",   "vfat"};
    return std::ranges::find(kOwnerless, typeName) == kOwnerless.end();
}

std::optional<uid_t> ownerOf(const std::string& folder) {
    const UniqueFd opened = openPlaceAt(AT_FDCWD, folder);
    struct stat status {};
    if (!opened || ::fstat(opened.get(), &status) != 0) return std::nullopt;
    return status.st_uid;
}

// Whether the path still leads to the folder. One above it that was moved after it was opened and
// before it was watched is told of by nobody.
bool leadsTo(const UniqueFd& folder, const std::string& path) {
    const UniqueFd there = openPlaceAt(AT_FDCWD, path);
    struct stat opened {};
    struct stat found {};
    return there && ::fstat(folder.get(), &opened) == 0 && ::fstat(there.get(), &found) == 0 &&
           opened.st_dev == found.st_dev && opened.st_ino == found.st_ino;
}

// Of what there is too little of, there may be more later.
bool isShortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOSPC;
}

std::string throughDescriptor(const UniqueFd& file) {
    return "/proc/self/fd/" + std::to_string(file.get());
}

}  // namespace

class LinuxDirectoryWatch::Subscription final : public DirectorySubscription {
  public:
    Subscription(LinuxDirectoryWatch& watch, std::uint64_t number, std::string path,
                 std::function<void()> callback)
        : folder(std::move(path)), didChange(std::move(callback)), watch_(watch), number_(number) {
        watch_.subscriptions_.emplace(number_, this);
    }
    ~Subscription() override {
        watch_.subscriptions_.erase(number_);
        watch_.unwatch(*this);
    }
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

    std::string folder;
    std::function<void()> didChange;
    int descriptor = -1;    // the kernel's number of the watch, or -1
    std::string awaited{};  // what the watch waits for in a folder above; empty: it is on this one
    std::vector<int> above{};  // watches of folders further up, for their moves
    bool isTouched = false;    // by an event that was just read
    bool isStale = false;      // what is watched may no longer be what the path leads to

    [[nodiscard]] bool isThere() const { return descriptor >= 0 && awaited.empty(); }

  private:
    LinuxDirectoryWatch& watch_;
    std::uint64_t number_;
};

// ---- Where the folders are
// --------------------------------------------------------------------------

// In bytes. A folder of homes, or root's, that is a link itself is the machine's own doing; below
// it none is followed.
std::vector<std::string> LinuxDirectoryWatch::homes() {
    std::vector<std::string> homes;
    const std::optional<std::string> folder = realPath(places_.homes);
    for (const std::string& name : folder ? namesIn(*folder) : std::vector<std::string>{}) {
        if (name.starts_with('.') || name == "Shared") continue;
        std::string home = *folder + '/' + name;
        // By the mount table, before anything there is touched: a server may be dead.
        struct stat status {};
        if (volumeOfPath(volumes_, textOfBytes(home)) && ::lstat(home.c_str(), &status) == 0 &&
            S_ISDIR(status.st_mode)) {
            homes.push_back(std::move(home));
        }
    }
    if (volumeOfPath(volumes_, places_.rootHome)) {
        std::string home = realPath(places_.rootHome).value_or(places_.rootHome);
        if (volumeOfPath(volumes_, textOfBytes(home))) homes.push_back(std::move(home));
    }
    return homes;
}

std::vector<std::string> LinuxDirectoryWatch::trashFolders(const std::string& volumePath) {
    std::vector<std::string> folders;
    if (volumePath == "/") {
        for (const std::string& home : homes()) folders.push_back(textOfBytes(home + kHomeTrash));
        return folders;
    }
    const std::string root = bytesOfText(volumePath);
    const MountEntry* const mount = volumes_.mountAt(volumePath);
    const bool hasOwners = mount && keepsOwners(mount->fileSystemTypeName);
    std::set<uid_t> users;  // who may be expected here
    for (const std::string& home : homes()) {
        struct stat status {};
        if (::lstat(home.c_str(), &status) == 0) users.insert(status.st_uid);
    }
    // Whoever may write in the root can make folders of any number, and there is a limit to those
    // that are watched.
    const auto mayBeOf = [&](uid_t user, const std::optional<uid_t>& owner) {
        return owner && (*owner == user || (!hasOwners && users.contains(user)));
    };
    // "VOLUME/.Trash-UID", and below a ".Trash" that the administrator has made "UID".
    for (const std::string& prefix : {root + "/.Trash-", root + "/.Trash/"}) {
        const std::string parent = prefix.substr(0, prefix.rfind('/'));
        const std::string beginning = prefix.substr(parent.size() + 1);
        const bool isThere = ownerOf(parent).has_value();
        std::set<uid_t> found;
        for (const std::string& name : isThere ? namesIn(parent) : std::vector<std::string>{}) {
            const auto user = name.starts_with(beginning)
                                  ? userNumber(std::string_view(name).substr(beginning.size()))
                                  : std::nullopt;
            std::string trash = parent;
            trash.append("/").append(name);
            if (user && mayBeOf(*user, ownerOf(trash))) found.insert(*user);
        }
        for (const uid_t user : users) {
            struct stat status {};
            const std::string awaited = prefix + std::to_string(user);
            if (isThere && ::lstat(awaited.c_str(), &status) != 0) found.insert(user);
        }
        for (const uid_t user : found) {
            folders.push_back(textOfBytes(fmt::format("{}{}/files", prefix, user)));
        }
    }
    return folders;
}

std::uint32_t LinuxDirectoryWatch::userOf(const std::string& folder) {
    const std::string path = bytesOfText(folder);
    const std::string_view home = std::string_view(path).substr(
        0, path.size() - std::min(path.size(), std::string_view(kHomeTrash).size()));
    struct stat status {};
    if (path.ends_with(kHomeTrash)) {
        return ::lstat(std::string(home).c_str(), &status) == 0 ? status.st_uid : 0;
    }
    // "VOLUME/.Trash-UID/files" and "VOLUME/.Trash/UID/files".
    const std::size_t end = path.rfind('/');
    const std::size_t begin = path.find_last_of("/-", end == 0 ? 0 : end - 1);
    if (end == std::string::npos || begin == std::string::npos) return 0;
    return userNumber(std::string_view(path).substr(begin + 1, end - begin - 1)).value_or(0);
}

// ---- That one has changed
// ---------------------------------------------------------------------------

bool LinuxDirectoryWatch::Queue::open(LinuxRunLoop& loop, sd_event_io_handler_t handler,
                                      LinuxDirectoryWatch* watch) {
    if (inotify) return true;
    UniqueFd opened(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    sd_event_source* added = nullptr;
    if (!opened ||
        sd_event_add_io(loop.event(), &added, opened.get(), EPOLLIN, handler, watch) < 0) {
        return false;
    }
    source.reset(added);
    inotify = std::move(opened);
    return true;
}

// Folders may move while their descriptors stay.
int LinuxDirectoryWatch::Queue::add(const UniqueFd& folder, std::uint32_t events) {
    const int descriptor = ::inotify_add_watch(inotify.get(), throughDescriptor(folder).c_str(),
                                               events | IN_ONLYDIR | IN_EXCL_UNLINK | IN_MASK_ADD);
    unused.erase(descriptor);
    return descriptor;
}

// Reads what there is now, and no more: somebody may cause events as fast as they are read.
template <typename Take>
void LinuxDirectoryWatch::Queue::read(Take&& take) const {
    constexpr int kMostReads = 256;
    constexpr ssize_t kLargestEvent = sizeof(inotify_event) + NAME_MAX + 1;
    alignas(inotify_event) std::array<char, 16 * 1024> buffer;
    for (int reads = 0; reads < kMostReads; ++reads) {
        const ssize_t got = ::read(inotify.get(), buffer.data(), buffer.size());
        if (got <= 0) return;
        for (const char* at = buffer.data(); at < buffer.data() + got;) {
            const auto* event = reinterpret_cast<const inotify_event*>(at);
            at += sizeof(inotify_event) + event->len;
            take(*event);
        }
        // There was room for one more, so there was none.
        if (got + kLargestEvent <= static_cast<ssize_t>(buffer.size())) return;
    }
}

std::unique_ptr<DirectorySubscription> LinuxDirectoryWatch::subscribe(
    const std::string& folder, std::function<void()> didChange) {
    if (!items_.open(loop_, onItemEvents, this) || !above_.open(loop_, onMoves, this)) {
        isShortOfWatches_ = true;
        return nullptr;
    }
    isShortOfWatches_ = false;
    auto subscription = std::make_unique<Subscription>(*this, nextSubscription_++,
                                                       bytesOfText(folder), std::move(didChange));
    if (!watch(*subscription)) return nullptr;
    return subscription;
}

bool LinuxDirectoryWatch::watch(Subscription& subscription) {
    constexpr int kMostAttempts = 100;  // somebody who makes folders faster than this is not served
    for (int attempt = 0; attempt < kMostAttempts; ++attempt) {
        unwatch(subscription);
        if (!watchNearest(subscription)) break;
    }
    return subscription.descriptor >= 0;
}

// Watches the folder, or waits in the nearest one above it that is there. True when what it waits
// for came while it looked, or what it watches went.
bool LinuxDirectoryWatch::watchNearest(Subscription& subscription) {
    constexpr int kPlace = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    UniqueFd folder{::open("/", kPlace)};
    std::string_view rest = subscription.folder;
    for (bool isRoot = true; folder; isRoot = false) {
        rest.remove_prefix(std::min(rest.find_first_not_of('/'), rest.size()));
        const std::string name(rest.substr(0, rest.find('/')));
        rest.remove_prefix(name.size());
        if (name.empty()) {
            subscription.descriptor = addWatch(folder, kItemsChanged | kFolderWent);
            return !leadsTo(folder, subscription.folder);
        }
        UniqueFd next{::openat(folder.get(), name.c_str(), kPlace)};
        if (!next && isShortage(errno)) {
            isShortOfWatches_ = true;
            return false;
        }
        if (!next) {
            subscription.descriptor = addWatch(folder, IN_CREATE | IN_MOVED_TO | kFolderWent);
            subscription.awaited = name;
            const std::string above = subscription.folder.substr(
                0, subscription.folder.size() - rest.size() - name.size());
            struct stat status {};
            return !leadsTo(folder, above) ||
                   (::fstatat(folder.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
                    S_ISDIR(status.st_mode));
        }
        // A folder is told of its own move and not of that of one above it.
        const int moves = isRoot ? -1 : above_.add(folder, IN_MOVE_SELF);
        if (moves >= 0) subscription.above.push_back(moves);
        folder = std::move(next);
    }
    return false;
}

int LinuxDirectoryWatch::addWatch(const UniqueFd& folder, std::uint32_t events) {
    const int descriptor = items_.add(folder, events);
    if (descriptor < 0 && isShortage(errno)) isShortOfWatches_ = true;
    return descriptor;
}

// Several subscriptions may share one watch: the kernel has one for each folder.
void LinuxDirectoryWatch::unwatch(Subscription& subscription) {
    const bool hadUnused = !items_.unused.empty() || !above_.unused.empty();
    // Where the folder itself could not be watched those above it may be all the same.
    const int descriptor = std::exchange(subscription.descriptor, -1);
    if (descriptor >= 0) items_.unused.insert(descriptor);
    for (const int above : std::exchange(subscription.above, {})) above_.unused.insert(above);
    subscription.awaited.clear();
    if (hadUnused || (items_.unused.empty() && above_.unused.empty())) return;
    loop_.post([this, alive = std::weak_ptr<char>(alive_)] {
        if (!alive.expired()) removeUnusedWatches();
    });
}

void LinuxDirectoryWatch::removeUnusedWatches() {
    for (const auto& [number, subscription] : subscriptions_) {
        items_.unused.erase(subscription->descriptor);
        for (const int above : subscription->above) above_.unused.erase(above);
    }
    for (Queue* const queue : {&items_, &above_}) {
        // Gone already when its folder is.
        for (const int unused : std::exchange(queue->unused, {})) {
            (void)::inotify_rm_watch(queue->inotify.get(), unused);
        }
    }
}

int LinuxDirectoryWatch::onItemEvents(sd_event_source* /*source*/, int /*fd*/,
                                      std::uint32_t /*events*/, void* self) noexcept {
    auto* const watch = static_cast<LinuxDirectoryWatch*>(self);
    watch->loop_.callBack("a change of a trash folder", [watch] {
        watch->items_.read([watch](const inotify_event& event) { watch->takeItemEvent(event); });
        watch->tellOfChanges();
    });
    return 0;
}

int LinuxDirectoryWatch::onMoves(sd_event_source* /*source*/, int /*fd*/, std::uint32_t /*events*/,
                                 void* self) noexcept {
    auto* const watch = static_cast<LinuxDirectoryWatch*>(self);
    watch->loop_.callBack("a move of a folder above a trash folder", [watch] {
        watch->above_.read([watch](const inotify_event& event) { watch->takeMove(event); });
        watch->tellOfChanges();
    });
    return 0;
}

void LinuxDirectoryWatch::takeItemEvent(const inotify_event& event) {
    const bool isOverflow = (event.mask & IN_Q_OVERFLOW) != 0;
    const bool hasGone = (event.mask & (kFolderWent | IN_IGNORED | IN_UNMOUNT)) != 0;
    for (const auto& [number, subscription] : subscriptions_) {
        if (!isOverflow && subscription->descriptor != event.wd) continue;
        // In a folder where one waits for a trash much else may be made.
        const bool isAwaited = event.len > 0 && subscription->awaited == event.name;
        if (!isOverflow && !hasGone && !subscription->isThere() && !isAwaited) continue;
        subscription->isTouched = true;
        // What is moved here is whole; what is made here is filled from another volume.
        constexpr std::uint32_t kFolderMade = IN_CREATE | IN_ISDIR;
        if (subscription->isThere() && (event.mask & kFolderMade) == kFolderMade) {
            filling_.add(subscription->folder, event.name);
        }
        // The folder may have gone, come, or be another one under its name.
        subscription->isStale =
            subscription->isStale || isOverflow || hasGone || !subscription->isThere();
    }
}

void LinuxDirectoryWatch::takeMove(const inotify_event& event) {
    if ((event.mask & (IN_MOVE_SELF | IN_Q_OVERFLOW)) == 0) return;
    for (const auto& [number, subscription] : subscriptions_) {
        const bool isAbove =
            std::ranges::find(subscription->above, event.wd) != subscription->above.end();
        if (!isAbove && (event.mask & IN_Q_OVERFLOW) == 0) continue;
        subscription->isTouched = true;
        subscription->isStale = true;
    }
}

void LinuxDirectoryWatch::didFill(const std::string& folder) {
    for (const auto& [number, subscription] : subscriptions_) {
        if (subscription->isThere() && subscription->folder == folder) {
            subscription->isTouched = true;
        }
    }
    tellOfChanges();
}

bool LinuxDirectoryWatch::isWaitedFor(const std::string& folder) const {
    return std::ranges::any_of(subscriptions_, [&](const auto& each) {
        return each.second->folder == folder && !each.second->isThere();
    });
}

void LinuxDirectoryWatch::tellOfChanges() {
    std::vector<std::uint64_t> told;
    for (const auto& [number, subscription] : subscriptions_) {
        if (!std::exchange(subscription->isTouched, false)) continue;
        const bool wasThere = subscription->isThere();
        if (std::exchange(subscription->isStale, false)) {
            // One that cannot be watched any more is told of for the last time.
            if (!watch(*subscription)) told.push_back(number);
        }
        if (subscription->descriptor >= 0 && (wasThere || subscription->isThere())) {
            told.push_back(number);
        }
    }
    for (const std::uint64_t number : told) {
        const auto known = subscriptions_.find(number);
        if (known == subscriptions_.end()) continue;
        const std::function<void()> didChange = known->second->didChange;  // it may end it
        didChange();
    }
}

// ---- What lies in it
// --------------------------------------------------------------------------------

std::optional<std::vector<CatalogItem>> LinuxDirectoryWatch::catalog(const std::string& folder,
                                                                     std::size_t mostItems) {
    const FolderStream opened = streamOf(openFolderAt(AT_FDCWD, bytesOfText(folder)));
    if (!opened && errno == ENOENT && isWaitedFor(bytesOfText(folder))) {
        return std::vector<CatalogItem>{};  // emptied together with the folder
    }
    struct stat status {};
    if (!opened || ::fstat(::dirfd(opened.get()), &status) != 0) return std::nullopt;
    std::vector<CatalogItem> items;
    while (items.size() < mostItems) {
        const dirent* const entry = ::readdir(opened.get());
        if (!entry) break;
        const std::string_view name = entry->d_name;
        if (name == "." || name == "..") continue;
        // What is mounted here is no item, and a dead server may be behind it.
        if (volumes_.mountAt(folder + '/' + textOfBytes(name))) continue;
        // The entry's own number is another one on some file systems (overlayfs, mount points).
        struct stat item {};
        if (::fstatat(::dirfd(opened.get()), entry->d_name, &item, AT_SYMLINK_NOFOLLOW) != 0) {
            continue;  // gone since
        }
        items.push_back({textOfBytes(name), item.st_ino, status.st_ino});
    }
    return items;
}

std::size_t LinuxDirectoryWatch::setBackupDates(const std::string& folder,
                                                std::span<const CatalogItem> items, Time date) {
    const UniqueFd opened = openPlaceAt(AT_FDCWD, bytesOfText(folder));
    if (!opened) return 0;
    const std::string text =
        std::to_string(std::chrono::floor<std::chrono::seconds>(date.time_since_epoch()).count());
    return static_cast<std::size_t>(std::ranges::count_if(items, [&](const CatalogItem& item) {
        // Opened for nothing but this: no device or pipe that was put here is touched.
        const UniqueFd file{::openat(opened.get(), bytesOfText(item.name).c_str(),
                                     O_PATH | O_NOFOLLOW | O_CLOEXEC)};
        struct stat status {};
        return file && ::fstat(file.get(), &status) == 0 && status.st_ino == item.nodeId &&
               ::setxattr(throughDescriptor(file).c_str(), kBackupDateAttribute, text.data(),
                          text.size(), 0) == 0;
    }));
}

}  // namespace korvane
