#include "platform/linux/LinuxDirectoryWatch.h"

#include <fcntl.h>
#include <fmt/format.h>
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
    if (read.ec != std::errc{} || read.ptr != end) return std::nullopt;
    return number;
}

std::string parentOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

// Where the path leads with every link followed; nothing when there is nothing.
std::optional<std::string> realPath(const std::string& path) {
    const std::unique_ptr<char, decltype(&::free)> real{::realpath(path.c_str(), nullptr), &::free};
    return real ? std::optional<std::string>(real.get()) : std::nullopt;
}

std::optional<uid_t> ownerOf(const std::string& folder) {
    const UniqueFd opened = openPlaceAt(AT_FDCWD, folder);
    struct stat status {};
    if (!opened || ::fstat(opened.get(), &status) != 0) return std::nullopt;
    return status.st_uid;
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
    int descriptor = -1;   // the kernel's number of the watch, or -1
    bool isThere = false;  // the watch is on the folder itself, not on one above it

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
    constexpr std::string_view kOwnTrash = ".Trash-";
    const std::string root = bytesOfText(volumePath);
    const std::optional<uid_t> rootOwner = ownerOf(root);
    // Whoever may write in the root can make folders of any number, and there is a limit to those
    // that are watched. Where a file system keeps no owners, everything has the root's.
    const auto isOfUser = [&](const std::string& name, uid_t user) {
        const std::optional<uid_t> owner = ownerOf(root + '/' + name);
        return owner && (*owner == user || owner == rootOwner);
    };
    std::set<uid_t> users;
    for (const std::string& name : namesIn(root)) {
        if (!name.starts_with(kOwnTrash)) continue;
        const auto user = userNumber(name.substr(kOwnTrash.size()));
        if (user && isOfUser(name, *user)) users.insert(*user);
    }
    for (const std::string& home : homes()) {
        struct stat status {};
        if (::lstat(home.c_str(), &status) == 0) users.insert(status.st_uid);
    }
    for (const uid_t user : users) {
        folders.push_back(fmt::format("{}/.Trash-{}/files", volumePath, user));
    }
    for (const std::string& name : namesIn(root + "/.Trash")) {
        const auto user = userNumber(name);
        if (user && isOfUser(".Trash/" + name, *user)) {
            folders.push_back(fmt::format("{}/.Trash/{}/files", volumePath, name));
        }
    }
    return folders;
}

// ---- That one has changed
// ---------------------------------------------------------------------------

bool LinuxDirectoryWatch::openQueue() {
    if (inotify_) return true;
    UniqueFd queue(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    sd_event_source* source = nullptr;
    if (!queue ||
        sd_event_add_io(loop_.event(), &source, queue.get(), EPOLLIN, onEvents, this) < 0) {
        return false;
    }
    source_.reset(source);
    inotify_ = std::move(queue);
    return true;
}

std::unique_ptr<DirectorySubscription> LinuxDirectoryWatch::subscribe(
    const std::string& folder, std::function<void()> didChange) {
    if (!openQueue()) return nullptr;
    auto subscription = std::make_unique<Subscription>(*this, nextSubscription_++,
                                                       bytesOfText(folder), std::move(didChange));
    if (!watch(*subscription)) return nullptr;
    return subscription;
}

// On the folder, or on the nearest one above it that is there. Further folders may appear while
// this looks, so it ends only when what it found below the watch is still as it was.
bool LinuxDirectoryWatch::watch(Subscription& subscription) {
    constexpr int kMostAttempts = 100;  // somebody who makes folders faster than this is not served
    for (int attempt = 0; attempt < kMostAttempts; ++attempt) {
        unwatch(subscription);
        std::string place = subscription.folder;
        std::string below;
        const auto add = [&](std::uint32_t events) {
            const UniqueFd folder = openPlaceAt(AT_FDCWD, place);
            if (!folder) return -1;
            return ::inotify_add_watch(
                inotify_.get(), throughDescriptor(folder).c_str(),
                events | kFolderWent | IN_ONLYDIR | IN_EXCL_UNLINK | IN_MASK_ADD);
        };
        subscription.descriptor = add(kItemsChanged);
        subscription.isThere = subscription.descriptor >= 0;
        while (subscription.descriptor < 0 && place != "/") {
            below = place;
            place = parentOf(place);
            subscription.descriptor = add(IN_CREATE | IN_MOVED_TO);
        }
        if (subscription.descriptor < 0) return false;
        unusedWatches_.erase(subscription.descriptor);
        struct stat status {};
        if (subscription.isThere || ::lstat(below.c_str(), &status) != 0 ||
            !S_ISDIR(status.st_mode)) {
            return true;
        }
    }
    return subscription.descriptor >= 0;
}

// Several subscriptions may share one watch: the kernel has one for each folder.
void LinuxDirectoryWatch::unwatch(Subscription& subscription) {
    const int descriptor = std::exchange(subscription.descriptor, -1);
    subscription.isThere = false;
    if (descriptor < 0) return;
    if (unusedWatches_.empty()) {
        loop_.post([this, alive = std::weak_ptr<char>(alive_)] {
            if (!alive.expired()) removeUnusedWatches();
        });
    }
    unusedWatches_.insert(descriptor);
}

void LinuxDirectoryWatch::removeUnusedWatches() {
    for (const auto& [number, subscription] : subscriptions_) {
        unusedWatches_.erase(subscription->descriptor);
    }
    // Gone already when its folder is.
    for (const int unused : std::exchange(unusedWatches_, {})) {
        (void)::inotify_rm_watch(inotify_.get(), unused);
    }
}

int LinuxDirectoryWatch::onEvents(sd_event_source* /*source*/, int /*fd*/, std::uint32_t /*events*/,
                                  void* self) noexcept {
    auto* const watch = static_cast<LinuxDirectoryWatch*>(self);
    watch->loop_.callBack("a change of a trash folder", [watch] { watch->readEvents(); });
    return 0;
}

void LinuxDirectoryWatch::readEvents() {
    std::set<int> touched;
    std::set<int> gone;
    bool hasOverflowed = false;
    alignas(inotify_event) std::array<char, 16 * 1024> buffer;
    while (true) {
        const ssize_t got = ::read(inotify_.get(), buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        for (const char* at = buffer.data(); at < buffer.data() + got;) {
            const auto* event = reinterpret_cast<const inotify_event*>(at);
            at += sizeof(inotify_event) + event->len;
            hasOverflowed = hasOverflowed || (event->mask & IN_Q_OVERFLOW) != 0;
            touched.insert(event->wd);
            if (event->mask & (kFolderWent | IN_IGNORED | IN_UNMOUNT)) gone.insert(event->wd);
        }
    }
    std::vector<std::uint64_t> told;
    for (const auto& [number, subscription] : subscriptions_) {
        if (!hasOverflowed && !touched.contains(subscription->descriptor)) continue;
        const bool wasThere = subscription->isThere;
        // The folder may have gone, come, or be another one under its name.
        if (!wasThere || hasOverflowed || gone.contains(subscription->descriptor)) {
            (void)watch(*subscription);  // one that cannot be watched any more tells nothing
        }
        if (wasThere || subscription->isThere) told.push_back(number);
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
    struct stat status {};
    if (!opened || ::fstat(::dirfd(opened.get()), &status) != 0) return std::nullopt;
    std::vector<CatalogItem> items;
    while (items.size() < mostItems) {
        const dirent* const entry = ::readdir(opened.get());
        if (!entry) break;
        const std::string_view name = entry->d_name;
        if (name == "." || name == "..") continue;
        // The entry's own number is another one on some file systems (overlayfs, mount points).
        struct stat item {};
        if (::fstatat(::dirfd(opened.get()), entry->d_name, &item, AT_SYMLINK_NOFOLLOW) != 0) {
            continue;  // gone since
        }
        items.push_back({textOfBytes(name), item.st_ino, status.st_ino});
    }
    return items;
}

bool LinuxDirectoryWatch::setBackupDate(const std::string& folder, const CatalogItem& item,
                                        Time date) {
    const UniqueFd opened = openPlaceAt(AT_FDCWD, bytesOfText(folder));
    // Opened for nothing but this: no device or pipe that was put here is touched.
    const UniqueFd file{opened ? ::openat(opened.get(), bytesOfText(item.name).c_str(),
                                          O_PATH | O_NOFOLLOW | O_CLOEXEC)
                               : -1};
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0 || status.st_ino != item.nodeId) return false;
    const std::string text =
        std::to_string(std::chrono::floor<std::chrono::seconds>(date.time_since_epoch()).count());
    return ::setxattr(throughDescriptor(file).c_str(), kBackupDateAttribute, text.data(),
                      text.size(), 0) == 0;
}

}  // namespace korvane
