// Where items went that are no longer in their trash folders.

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <system_error>
#include <utility>

#include "platform/VolumeOfPath.h"
#include "platform/linux/LinuxDirectoryWatch.h"
#include "platform/linux/MountTable.h"
#include "platform/linux/OpenFolder.h"

namespace korvane {

namespace {

// Names and paths come from files that everybody may write. What they lead to is looked at only in
// the folder itself, or below the volume's root: a dead server elsewhere would hold the loop.
bool isNameInFolder(std::string_view name) {
    return name != "." && name != ".." && name.find('/') == std::string_view::npos;
}
bool leadsUp(const std::string& path) { return (path + '/').find("/../") != std::string::npos; }

// FAT keeps no numbers: the kernel makes them up for as long as it has an item in memory.
bool keepsNumbers(std::string_view typeName) {
    return typeName != "vfat" && typeName != "msdos" && typeName != "exfat";
}

// The item on its file system, by its number or, without one, by whatever has its name.
struct Wanted {
    dev_t device = 0;
    std::optional<std::uint64_t> nodeId;
    const ItemTrace* trace = nullptr;
};

// Where it was seen one look has to do: it is there most often, and there may be thousands.
bool isStillAt(int folder, const std::string& name, const Wanted& wanted) {
    struct stat status {};
    return isNameInFolder(name) &&
           ::fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           status.st_dev == wanted.device && wanted.nodeId.value_or(status.st_ino) == status.st_ino;
}

bool isWantedAt(int folder, const std::string& name, const Wanted& wanted) {
    if (!isNameInFolder(name)) return false;
    const UniqueFd item{::openat(folder, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC)};
    struct stat status {};
    if (!item || ::fstat(item.get(), &status) != 0 || status.st_dev != wanted.device) return false;
    return !wanted.nodeId ||
           (status.st_ino == *wanted.nodeId &&
            (!wanted.trace || identityOf(item.get(), *wanted.trace) != Identity::another));
}

// Follows no link, and goes by the mount table before anything is touched.
bool isWantedOnVolumeAt(Volumes& volumes, std::int16_t volume, const std::string& path,
                        const Wanted& wanted) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos || leadsUp(path)) return false;
    const auto there = volumeOfPath(volumes, textOfBytes(path));
    if (!there || there->info.referenceNumber != volume) return false;
    const UniqueFd folder = openPlaceAt(AT_FDCWD, path.substr(0, slash + 1));
    return folder && isWantedAt(folder.get(), path.substr(slash + 1), wanted);
}

}  // namespace

// The folders that items were seen in, each opened once; while this is there their volumes cannot
// be unmounted.
struct LinuxDirectoryWatch::Folders {
    struct Opened {
        std::optional<PathVolume> volume;
        UniqueFd folder;  // empty when it is not there
        UniqueFd root;    // the volume's; empty when it is not mounted
        dev_t device = 0;
        bool keepsNumbers = true;
    };
    std::map<std::pair<std::int16_t, std::string>, Opened> opened;

    Opened& of(Volumes& volumes, std::int16_t volume, const std::string& folder) {
        const auto [known, isNew] = opened.try_emplace({volume, folder});
        if (isNew) open(known->second, volumes, volume, folder);
        return known->second;
    }

    static void open(Opened& entry, Volumes& volumes, std::int16_t volume,
                     const std::string& folder) {
        entry.volume = volumeOfPath(volumes, folder);
        const bool isThere = entry.volume && entry.volume->info.referenceNumber == volume;
        if (!isThere) {
            // Mounted elsewhere now, or not at all.
            const auto info = volumes.volumeInfoByReferenceNumber(volume);
            entry.volume.reset();
            if (info.status != 0) return;
            entry.volume = PathVolume{info.value, info.value.root.rootPath};
        }
        const MountEntry* const mount = volumes.mountAt(entry.volume->mountPoint);
        entry.keepsNumbers = !mount || keepsNumbers(mount->fileSystemTypeName);
        entry.root = openedRoot(volumes, entry.volume->mountPoint);
        if (entry.root && !leadsUp(folder)) {
            entry.folder = isThere ? openPlaceAt(AT_FDCWD, bytesOfText(folder))
                                   : openedBelow(entry, volumes, bytesOfText(folder));
        }
        struct stat status {};
        const int place = entry.folder ? entry.folder.get() : entry.root.get();
        if (place >= 0 && ::fstat(place, &status) == 0) entry.device = status.st_dev;
    }

    // The trash folder of a volume that was mounted elsewhere when it was seen: the longest end of
    // its path that leads to one, by the mount table on this volume and no other.
    static UniqueFd openedBelow(const Opened& entry, Volumes& volumes, const std::string& folder) {
        const std::string& mountPoint = entry.volume->mountPoint;
        const std::string above = mountPoint == "/" ? "" : mountPoint;
        for (std::size_t at = folder.find('/'); at != std::string::npos;
             at = folder.find('/', at + 1)) {
            const std::string end = folder.substr(at);
            const bool isInTrash = end.find("/.Trash") != std::string::npos ||
                                   end.find("/Trash/") != std::string::npos;
            if (!isInTrash) return UniqueFd{};  // nor is any shorter one
            const auto there = volumeOfPath(volumes, above + textOfBytes(end));
            const bool isOnVolume =
                there && there->info.referenceNumber == entry.volume->info.referenceNumber;
            UniqueFd opened =
                isOnVolume ? openPlaceAt(entry.root.get(), end.substr(1)) : UniqueFd{};
            if (opened) return opened;
        }
        return UniqueFd{};
    }

    // The volume may have gone since the mount table was read: then the path leads to the folder
    // below, on a file system that knows nothing of these items. Once it is open it stays.
    static UniqueFd openedRoot(Volumes& volumes, const std::string& mountPoint) {
        const std::string path = bytesOfText(mountPoint);
        // For reading: open_by_handle_at(2) takes no other.
        UniqueFd root = openFolderAt(AT_FDCWD, path);
        struct stat opened {};
        struct stat there {};
        if (!root || !volumes.fileSystemAttributes(mountPoint) ||
            ::fstat(root.get(), &opened) != 0 || ::lstat(path.c_str(), &there) != 0 ||
            opened.st_dev != there.st_dev || opened.st_ino != there.st_ino) {
            return UniqueFd{};
        }
        return root;
    }
};

// Items to search for, and below which mounts.
struct LinuxDirectoryWatch::Sought {
    std::vector<VolumeSearch::Root> roots;
    struct Item {
        ItemNumber number;
        VolumeSearch::Node node;
        // It exists, by its handle: not finding it says nothing.
        bool exists = false;
    };
    std::vector<Item> items;
};

LinuxDirectoryWatch::LinuxDirectoryWatch(LinuxRunLoop& loop, Volumes& volumes,
                                         LinuxTrashPlaces places)
    : loop_(loop),
      volumes_(volumes),
      places_(std::move(places)),
      filling_(loop, volumes, places_.fillingPause,
               [this](const std::string& folder) { didFill(folder); }),
      traces_(places_.tracesFile),
      alive_(std::make_shared<char>()) {}

LinuxDirectoryWatch::~LinuxDirectoryWatch() = default;

void LinuxDirectoryWatch::remember(std::int16_t volume, const std::string& folder,
                                   std::span<const CatalogItem> items) {
    const auto info = volumes_.volumeInfoByReferenceNumber(volume);
    const UniqueFd opened = openPlaceAt(AT_FDCWD, bytesOfText(folder));
    if (!opened || info.status != 0) return;
    const std::string root = bytesOfText(info.value.root.rootPath);
    for (const CatalogItem& item : items) {
        if (auto trace = traceItem(opened.get(), bytesOfText(item.name), item.nodeId, root)) {
            traces_.set({volume, item.nodeId}, std::move(*trace));
        }
    }
}

std::vector<Recognized> LinuxDirectoryWatch::recognize(std::int16_t volume,
                                                       const std::string& folder,
                                                       std::span<const CatalogItem> items) {
    std::vector<Recognized> recognized(items.size());
    const UniqueFd opened = openPlaceAt(AT_FDCWD, bytesOfText(folder));
    if (!opened) return recognized;
    for (std::size_t i = 0; i < items.size(); ++i) {
        const ItemTrace* const trace = traces_.find({volume, items[i].nodeId});
        if (!trace) continue;
        const UniqueFd item{::openat(opened.get(), bytesOfText(items[i].name).c_str(),
                                     O_PATH | O_NOFOLLOW | O_CLOEXEC)};
        struct stat status {};
        if (!item || ::fstat(item.get(), &status) != 0 || status.st_ino != items[i].nodeId) {
            continue;  // gone since
        }
        recognized[i] = {identityOf(item.get(), *trace), textOfBytes(trace->name)};
    }
    return recognized;
}

void LinuxDirectoryWatch::keepOnly(std::span<const ItemNumber> items) {
    traces_.keepOnly({items.begin(), items.end()});
    traces_.save();
}

std::vector<ResolvedNode> LinuxDirectoryWatch::resolve(std::span<const SeenItem> items) {
    std::vector<ResolvedNode> answers;
    answers.reserve(items.size());
    Folders folders;
    Sought sought;
    for (const SeenItem& item : items) {
        answers.push_back(resolveOne(item, folders, sought));
    }
    foundOut_.clear();
    startSearch(std::move(sought));
    return answers;
}

ResolvedNode LinuxDirectoryWatch::resolveOne(const SeenItem& item, Folders& folders,
                                             Sought& sought) {
    const Folders::Opened& place = folders.of(volumes_, item.volume, item.folder);
    if (!place.volume || !place.root) return {};
    const ItemNumber number{item.volume, item.nodeId};
    const ItemTrace* trace = traces_.find(number);
    // Of an item that had the number before, or has it now.
    if (trace && !trace->name.empty() && trace->name != bytesOfText(item.name)) trace = nullptr;
    const Wanted wanted{place.device,
                        place.keepsNumbers ? std::optional(item.nodeId) : std::nullopt, trace};
    if (place.folder && isStillAt(place.folder.get(), bytesOfText(item.name), wanted)) {
        return {NodeState::found, item.folder + '/' + item.name};
    }
    const auto isAt = [&](const std::string& path) {
        return isWantedOnVolumeAt(volumes_, item.volume, path, wanted);
    };
    bool exists = false;
    if (trace) {
        if (!trace->origin.empty() && isAt(trace->origin)) {
            return {NodeState::found, textOfBytes(trace->origin)};
        }
        const HandleAnswer answer = followHandle(place.root.get(), *trace, item.nodeId);
        if (answer.state == HandleState::gone) return {NodeState::gone, ""};
        if (!answer.path.empty()) return {NodeState::found, textOfBytes(answer.path)};
        exists = answer.state == HandleState::exists;
    }
    if (const auto known = foundOut_.find(number); known != foundOut_.end()) {
        const ResolvedNode& node = known->second;
        const bool stillStands = node.state != NodeState::found || isAt(bytesOfText(node.path));
        // Where it was found another item is by now. It is not sought again by the question that
        // follows a search, which would go on for ever; the next scan asks again.
        return stillStands ? node : ResolvedNode{};
    }
    // The way that led to the folder first; what another mount of the volume shows, too.
    for (const std::string& root : {place.volume->mountPoint, place.volume->info.root.rootPath}) {
        const std::string path = bytesOfText(root);
        if (std::ranges::find(sought.roots, path, &VolumeSearch::Root::path) ==
            sought.roots.end()) {
            sought.roots.push_back({path, place.device});
        }
    }
    sought.items.push_back({number, {place.device, item.nodeId}, exists});
    return {};
}

void LinuxDirectoryWatch::setDidFindOut(std::function<void()> callback) {
    didFindOut_ = std::move(callback);
}

// One at a time: what is sought meanwhile is sought again at the next resolve().
void LinuxDirectoryWatch::startSearch(Sought sought) {
    if (search_ || sought.items.empty()) return;
    VolumeSearch::Order order;
    order.roots = sought.roots;
    for (const Sought::Item& item : sought.items) order.nodes.insert(item.node);
    for (const MountEntry& mount : volumes_.mountTable()) {
        order.avoided.insert(bytesOfText(mount.mountOnName));
    }
    order.limit = places_.searchLimit;
    sought_ = std::make_unique<Sought>(std::move(sought));
    try {
        search_ = std::make_unique<VolumeSearch>(
            loop_, std::move(order),
            [this](const VolumeSearch::Finding& finding) { didSearch(finding); });
    } catch (const std::system_error&) {
        // No thread or descriptor now, or too many threads that hang; nothing is decided, and the
        // next scan asks again.
    }
}

void LinuxDirectoryWatch::didSearch(const VolumeSearch::Finding& finding) {
    const std::unique_ptr<VolumeSearch> over = std::move(search_);
    const auto isWhole = [&](dev_t device) {
        const auto known = finding.isWhole.find(device);
        return known != finding.isWhole.end() && known->second;
    };
    bool hasFoundOut = false;
    for (const Sought::Item& item : sought_->items) {
        ResolvedNode& node = foundOut_[item.number];
        const auto found = finding.paths.find(item.node);
        if (found != finding.paths.end()) {
            node = {NodeState::found, textOfBytes(found->second)};
        } else if (isWhole(item.node.first) && !item.exists) {
            node = {NodeState::gone, ""};
        }
        hasFoundOut = hasFoundOut || node.state != NodeState::unknown;
    }
    // It holds now: what was not found may come back, and what was found move. What stays unknown
    // is kept as such as long, so that the question that follows does not start the same search.
    loop_.post([this, alive = std::weak_ptr<char>(alive_)] {
        if (!alive.expired()) foundOut_.clear();
    });
    const std::function<void()> callback = didFindOut_;
    if (hasFoundOut && callback) callback();
}

}  // namespace korvane
