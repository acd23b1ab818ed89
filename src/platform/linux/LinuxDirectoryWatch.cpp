#include "platform/linux/LinuxDirectoryWatch.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "platform/linux/MountTable.h"
#include "platform/linux/SmallFile.h"
#include "platform/linux/TrashInfo.h"

namespace korvane {

namespace {

// What comes and goes. Changed attributes are left out: the daemon's own stamps would wake it.
constexpr std::uint32_t kItemsChanged = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
constexpr std::uint32_t kFolderWent = IN_DELETE_SELF | IN_MOVE_SELF;
constexpr char kBackupDateAttribute[] = "user.korvane.backup-date";
constexpr char kTracesFileName[] = ".Trash Items.plist";
constexpr char kHandle[] = "handle";
constexpr char kHandleType[] = "handleType";
constexpr char kOrigin[] = "origin";

struct FolderCloser {
    void operator()(DIR* folder) const { (void)::closedir(folder); }
};
using Folder = std::unique_ptr<DIR, FolderCloser>;

Folder openedFolder(const std::string& path) {
    const int fd =
        ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return nullptr;
    Folder folder(::fdopendir(fd));
    if (!folder) (void)::close(fd);
    return folder;
}

// The names in a folder but those that begin with a full stop, sorted; none when it cannot be read.
std::vector<std::string> namesIn(const std::string& path, bool withHidden = false) {
    std::vector<std::string> names;
    const Folder folder = openedFolder(path);
    while (const dirent* entry = folder ? ::readdir(folder.get()) : nullptr) {
        if (withHidden || entry->d_name[0] != '.') names.emplace_back(entry->d_name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// To look names up in, without reading it.
UniqueFd folderToLookIn(const std::string& path) {
    return UniqueFd{::open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)};
}

bool isNumber(std::string_view text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

std::string parentOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

bool isNodeAt(const std::string& path, std::uint64_t nodeId, dev_t device) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && status.st_ino == nodeId &&
           status.st_dev == device;
}

std::string traceKey(std::int16_t volume, std::uint64_t nodeId) {
    return std::to_string(volume) + '_' + std::to_string(nodeId);
}

struct Handle {
    alignas(file_handle) std::array<char, sizeof(file_handle) + MAX_HANDLE_SZ> bytes{};
    file_handle* get() { return reinterpret_cast<file_handle*>(bytes.data()); }
};

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

LinuxDirectoryWatch::LinuxDirectoryWatch(LinuxRunLoop& loop, Volumes& volumes,
                                         const std::string& memoryFile)
    : loop_(loop),
      volumes_(volumes),
      tracesFile_(memoryFile.empty() ? "" : parentOf(memoryFile) + '/' + kTracesFileName) {}

LinuxDirectoryWatch::~LinuxDirectoryWatch() = default;

std::vector<std::string> LinuxDirectoryWatch::trashFolders(const std::string& volumePath) {
    std::vector<std::string> folders;
    std::set<uid_t> users{0};
    for (const std::string& name : namesIn("/home")) {
        if (name == "Shared") continue;
        struct stat status {};
        const std::string home = "/home/" + name;
        if (::lstat(home.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) continue;
        users.insert(status.st_uid);
        folders.push_back(textOfBytes(home) + "/.local/share/Trash/files");
    }
    folders.push_back("/root/.local/share/Trash/files");
    if (volumePath == "/") return folders;

    constexpr std::string_view kOwnTrash = ".Trash-";
    const std::string root = bytesOfText(volumePath);
    for (const std::string& name : namesIn(root, true)) {
        if (name.starts_with(kOwnTrash) && isNumber(name.substr(kOwnTrash.size()))) {
            users.insert(
                static_cast<uid_t>(std::strtoul(name.c_str() + kOwnTrash.size(), nullptr, 10)));
        }
    }
    folders.clear();
    for (const uid_t user : users) {
        folders.push_back(volumePath + "/.Trash-" + std::to_string(user) + "/files");
    }
    for (const std::string& name : namesIn(root + "/.Trash")) {
        if (isNumber(name)) folders.push_back(volumePath + "/.Trash/" + name + "/files");
    }
    return folders;
}

std::unique_ptr<DirectorySubscription> LinuxDirectoryWatch::subscribe(
    const std::string& folder, std::function<void()> didChange) {
    if (!inotify_) {
        inotify_ = UniqueFd(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
        sd_event_source* source = nullptr;
        if (!inotify_ ||
            sd_event_add_io(loop_.event(), &source, inotify_.get(), EPOLLIN, onEvents, this) < 0) {
            inotify_ = UniqueFd();
            return nullptr;
        }
        source_.reset(source);
    }
    auto subscription = std::make_unique<Subscription>(*this, nextSubscription_++,
                                                       bytesOfText(folder), std::move(didChange));
    if (!watch(*subscription)) return nullptr;
    return subscription;
}

// On the folder, or on the nearest one above it that is there. Further folders may appear while
// this looks, so it ends only when what it found below the watch is still as it was.
bool LinuxDirectoryWatch::watch(Subscription& subscription) {
    for (int attempt = 0; attempt < 100; ++attempt) {
        unwatch(subscription);
        std::string place = subscription.folder;
        const auto add = [&](std::uint32_t events) {
            return ::inotify_add_watch(
                inotify_.get(), place.c_str(),
                events | kFolderWent | IN_ONLYDIR | IN_DONT_FOLLOW | IN_EXCL_UNLINK | IN_MASK_ADD);
        };
        subscription.descriptor = add(kItemsChanged);
        subscription.isThere = subscription.descriptor >= 0;
        std::string below = place;
        while (subscription.descriptor < 0 && place != "/") {
            below = place;
            place = parentOf(place);
            subscription.descriptor = add(IN_CREATE | IN_MOVED_TO);
        }
        if (subscription.isThere) return true;
        struct stat status {};
        if (subscription.descriptor < 0) return false;
        if (::lstat(below.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return true;
    }
    return subscription.descriptor >= 0;
}

// Several subscriptions may share one watch: the kernel has one for each folder.
void LinuxDirectoryWatch::unwatch(Subscription& subscription) {
    const int descriptor = std::exchange(subscription.descriptor, -1);
    subscription.isThere = false;
    const bool isShared =
        std::any_of(subscriptions_.begin(), subscriptions_.end(),
                    [&](const auto& known) { return known.second->descriptor == descriptor; });
    // Gone already when its folder is.
    if (descriptor >= 0 && !isShared) (void)::inotify_rm_watch(inotify_.get(), descriptor);
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

std::optional<std::vector<CatalogItem>> LinuxDirectoryWatch::catalog(const std::string& folder,
                                                                     std::size_t mostItems) {
    const Folder opened = openedFolder(bytesOfText(folder));
    struct stat status {};
    if (!opened || ::fstat(::dirfd(opened.get()), &status) != 0) return std::nullopt;
    std::vector<CatalogItem> items;
    while (items.size() < mostItems) {
        const dirent* entry = ::readdir(opened.get());
        if (!entry) break;
        const std::string_view name = entry->d_name;
        if (name == "." || name == "..") continue;
        items.push_back({textOfBytes(name), entry->d_ino, status.st_ino});
    }
    return items;
}

bool LinuxDirectoryWatch::setBackupDate(const std::string& folder, const CatalogItem& item,
                                        Time date) {
    const UniqueFd opened = folderToLookIn(bytesOfText(folder));
    // Opened for nothing but this: no device or pipe that was put here is touched.
    const UniqueFd file{opened ? ::openat(opened.get(), bytesOfText(item.name).c_str(),
                                          O_PATH | O_NOFOLLOW | O_CLOEXEC)
                               : -1};
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0 || status.st_ino != item.nodeId) return false;
    const std::string text =
        std::to_string(std::chrono::floor<std::chrono::seconds>(date.time_since_epoch()).count());
    const std::string path = "/proc/self/fd/" + std::to_string(file.get());
    return ::setxattr(path.c_str(), kBackupDateAttribute, text.data(), text.size(), 0) == 0;
}

void LinuxDirectoryWatch::remember(std::int16_t volume, const std::string& folder,
                                   std::span<const CatalogItem> items) {
    const auto info = volumes_.volumeInfoByReferenceNumber(volume);
    const std::string folderBytes = bytesOfText(folder);
    const UniqueFd opened = folderToLookIn(folderBytes);
    if (!opened || info.status != 0) return;
    bool changed = false;
    for (const CatalogItem& item : items) {
        Handle handle;
        handle.get()->handle_bytes = MAX_HANDLE_SZ;
        int mountId = 0;
        Dictionary trace;
        // The handle names the node for good: the number alone is used again once it is free.
        const std::string name = bytesOfText(item.name);
        if (::name_to_handle_at(opened.get(), name.c_str(), handle.get(), &mountId, 0) == 0) {
            const auto* first = reinterpret_cast<const std::byte*>(handle.get()->f_handle);
            trace.set(kHandle, PropertyListData(first, first + handle.get()->handle_bytes));
            trace.set(kHandleType, std::int64_t{handle.get()->handle_type});
        }
        const auto note = readSmallFile(parentOf(folderBytes) + "/info/" + name + ".trashinfo");
        if (const auto origin = note ? originInTrashInfo(*note) : std::nullopt) {
            const std::string root = bytesOfText(info.value.root.rootPath);
            const std::string path = origin->front() == '/' ? *origin : root + '/' + *origin;
            // As bytes: a path need not be text.
            const auto* first = reinterpret_cast<const std::byte*>(path.data());
            trace.set(kOrigin, PropertyListData(first, first + path.size()));
        }
        PropertyList* const known = traces().find(traceKey(volume, item.nodeId));
        if (known && known->dictionary() && *known->dictionary() == trace) continue;
        traces().set(traceKey(volume, item.nodeId), std::move(trace));
        changed = true;
    }
    if (changed) saveTraces();
}

ResolvedNode LinuxDirectoryWatch::resolve(const SeenItem& item) {
    const auto info = volumes_.volumeInfoByReferenceNumber(item.volume);
    struct stat root {};
    const std::string rootPath = bytesOfText(info.value.root.rootPath);
    if (info.status != 0 || ::lstat(rootPath.c_str(), &root) != 0) return {};
    const std::string seen = item.folder + '/' + item.name;
    if (isNodeAt(bytesOfText(seen), item.nodeId, root.st_dev)) return {NodeState::found, seen};

    const std::string key = traceKey(item.volume, item.nodeId);
    const PropertyList* const trace = traces().find(key);
    if (!trace || !trace->dictionary()) return {};
    const PropertyList* const origin = trace->dictionary()->find(kOrigin);
    if (origin && origin->data()) {
        const std::string path(reinterpret_cast<const char*>(origin->data()->data()),
                               origin->data()->size());
        if (isNodeAt(path, item.nodeId, root.st_dev)) {
            return {NodeState::found, textOfBytes(path)};
        }
    }
    std::optional<ResolvedNode> found = throughHandle(*trace->dictionary(), rootPath, item.nodeId);
    if (!found) return {};
    if (found->state == NodeState::gone) {
        traces().remove(key);
        saveTraces();
    }
    return *found;
}

std::optional<ResolvedNode> LinuxDirectoryWatch::throughHandle(const Dictionary& trace,
                                                               const std::string& root,
                                                               std::uint64_t nodeId) {
    const PropertyList* const stored = trace.find(kHandle);
    if (!stored || !stored->data() || stored->data()->size() > MAX_HANDLE_SZ) return std::nullopt;
    Handle handle;
    handle.get()->handle_bytes = static_cast<unsigned>(stored->data()->size());
    handle.get()->handle_type = static_cast<int>(integerValue(trace.find(kHandleType)));
    std::memcpy(handle.get()->f_handle, stored->data()->data(), stored->data()->size());
    const UniqueFd mount{::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (!mount) return std::nullopt;
    const UniqueFd file{::open_by_handle_at(mount.get(), handle.get(), O_PATH | O_CLOEXEC)};
    struct stat status {};
    if (!file) {
        // open_by_handle_at(2): the handle's node exists no longer.
        if (errno == ESTALE) return ResolvedNode{NodeState::gone, ""};
        return std::nullopt;
    }
    if (::fstat(file.get(), &status) != 0) return std::nullopt;
    if (status.st_nlink == 0) return ResolvedNode{NodeState::gone, ""};
    // Right while the name is cached, which the check tells.
    std::array<char, PATH_MAX> path{};
    const std::string link = "/proc/self/fd/" + std::to_string(file.get());
    const ssize_t length = ::readlink(link.c_str(), path.data(), path.size());
    if (length <= 0) return std::nullopt;
    std::string text(path.data(), static_cast<std::size_t>(length));
    if (!isNodeAt(text, nodeId, status.st_dev)) return std::nullopt;
    return ResolvedNode{NodeState::found, textOfBytes(text)};
}

Dictionary& LinuxDirectoryWatch::traces() {
    if (!traces_) {
        traces_.emplace();
        auto stored = tracesFile_.empty() ? Result<PropertyList>(Error{"no file"})
                                          : propertyLists_.read(tracesFile_);
        if (stored && stored->dictionary()) traces_ = std::move(*stored->dictionary());
    }
    return *traces_;
}

void LinuxDirectoryWatch::saveTraces() {
    if (tracesFile_.empty()) return;
    // Without it a restarted daemon finds less again; nothing else depends on it.
    (void)propertyLists_.write(tracesFile_, PropertyList(traces()), S_IRUSR | S_IWUSR,
                               Durability::process);
}

}  // namespace korvane
