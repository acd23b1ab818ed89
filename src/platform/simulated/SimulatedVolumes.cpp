#include "platform/simulated/SimulatedVolumes.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace korvane {

namespace {

constexpr std::string_view kDevicePrefix = "/dev/";

std::string bsdNameOf(const MountDescription& mount) {
    return mount.device.starts_with(kDevicePrefix) ? mount.device.substr(kDevicePrefix.size()) : "";
}

}  // namespace

struct SimulatedVolumes::Mounted {
    MountDescription description;
    std::uint64_t number = 0;
    std::int16_t referenceNumber = 0;
    int countOfName = 0;  // of those mounted before that have the same display name
    bool isBusy = false;
    bool isUnreadable = false;
    std::chrono::microseconds delay{0};
};

struct SimulatedVolumes::Tables {
    std::vector<MountEntry> table;
    std::unordered_map<std::string_view, std::size_t> firstEntryAt;  // keys lie in `table`
    std::vector<std::string> localPaths;
    std::vector<Mounted*> volumes;  // by index; one for each file system, at its first mount
    std::unordered_map<std::int16_t, Mounted*> byReferenceNumber;
    std::unordered_map<std::string, Mounted*> byPath;
    std::unordered_map<std::string, Mounted*> byDevice;  // local ones
};

SimulatedVolumes::SimulatedVolumes(SimulatedRunLoop& runLoop, SimulatedClock& clock,
                                   SimulatedFileSystem& fileSystem, SimulatedJournal& journal)
    : runLoop_(runLoop), clock_(clock), fileSystem_(fileSystem), journal_(journal) {}

SimulatedVolumes::~SimulatedVolumes() = default;

const std::vector<MountEntry>& SimulatedVolumes::mountTable() { return tables().table; }

const MountEntry* SimulatedVolumes::mountAt(std::string_view path) {
    const Tables& current = tables();
    const auto entry = current.firstEntryAt.find(path);
    return entry == current.firstEntryAt.end() ? nullptr : &current.table[entry->second];
}

const std::vector<std::string>& SimulatedVolumes::mountedLocalVolumePaths() {
    return tables().localPaths;
}

OSErrOr<VolumeInfo> SimulatedVolumes::volumeInfoByIndex(std::size_t index) {
    const std::vector<Mounted*>& volumes = tables().volumes;
    if (index == 0 || index > volumes.size()) {
        return {nsvErr, {}};
    }
    const auto status = statusesOfIndexes_.find(index);
    if (status != statusesOfIndexes_.end()) {
        return {status->second, {}};
    }
    return infoOf(volumes[index - 1]);
}

OSErrOr<VolumeInfo> SimulatedVolumes::volumeInfoByReferenceNumber(std::int16_t number) {
    const auto& numbers = tables().byReferenceNumber;
    const auto found = numbers.find(number);
    return infoOf(found == numbers.end() ? nullptr : found->second);
}

OSErrOr<VolumeInfo> SimulatedVolumes::volumeInfoOfRoot(const FSRef& root) {
    const auto& paths = tables().byPath;
    const auto found = paths.find(root.rootPath);
    return infoOf(found == paths.end() ? nullptr : found->second);
}

OSErrOr<VolumeInfo> SimulatedVolumes::volumeInfoByDevice(std::string_view bsdName) {
    const auto& devices = tables().byDevice;
    const auto found = devices.find(std::string(bsdName));
    return infoOf(found == devices.end() ? nullptr : found->second);
}

std::string SimulatedVolumes::displayName(std::string_view path) {
    const Mounted* mounted = mountedAt(path);
    return mounted ? nameOf(*mounted) : Volumes::displayName(path);
}

std::optional<FileSystemFlags> SimulatedVolumes::fileSystemFlags(const std::string& path) {
    const Mounted* mounted = mountedAt(path);
    if (!mounted) {
        return std::nullopt;
    }
    const MountDescription& mount = mounted->description;
    return FileSystemFlags{mount.isRemovable, mount.isWritable, mount.isUnmountable};
}

std::optional<FileSystemAttributes> SimulatedVolumes::fileSystemAttributes(
    const std::string& path) {
    const Mounted* mounted = mountedAt(path);
    if (!mounted) {
        return std::nullopt;
    }
    clock_.advance(mounted->delay);
    if (mounted->isUnreadable) {
        return std::nullopt;
    }
    return FileSystemAttributes{mounted->description.sizeBytes, mounted->description.freeBytes,
                                mounted->number};
}

bool SimulatedVolumes::unmount(std::int16_t referenceNumber) {
    ++unmountRequests_;
    const auto& numbers = tables().byReferenceNumber;
    const auto found = numbers.find(referenceNumber);
    if (found == numbers.end() || found->second->isBusy ||
        !found->second->description.isUnmountable) {
        journal_.note("unmount refused", fmt::format("volume {}", referenceNumber));
        return false;
    }
    // A copy: the volume that has the path goes.
    const std::string path = found->second->description.path;
    return forceUnmount(path).has_value();
}

void SimulatedVolumes::setDidMount(std::function<void()> callback) {
    if (didMount_ && !callback) journal_.note("mounts unobserved");
    didMount_ = std::move(callback);
}

void SimulatedVolumes::setDidUnmount(std::function<void()> callback) {
    if (didUnmount_ && !callback) journal_.note("unmounts unobserved");
    didUnmount_ = std::move(callback);
}

void SimulatedVolumes::mount(const MountDescription& mount) {
    auto mounted = std::make_unique<Mounted>();
    mounted->description = mount;
    mounted->referenceNumber = referenceNumberFor(mount);
    mounted->number = nextNumber_++;
    fileSystem_.attach(mount.path, mount.device);
    applyToFileSystem(*mounted);
    const auto hasName = [&](const auto& each) { return nameOf(*each) == nameOf(*mounted); };
    while (std::any_of(mounts_.begin(), mounts_.end(), hasName)) {
        ++mounted->countOfName;
    }
    journal_.note("mount", mount.path + " on " + mount.device);
    mounts_.push_back(std::move(mounted));
    changed();
}

std::optional<MountDescription> SimulatedVolumes::forceUnmount(const std::string& path) {
    const auto mounted = std::find_if(mounts_.rbegin(), mounts_.rend(), [&](const auto& each) {
        return each->description.path == path;
    });
    if (mounted == mounts_.rend()) {
        return std::nullopt;
    }
    MountDescription description = std::move((*mounted)->description);
    mounts_.erase(std::next(mounted).base());
    fileSystem_.detach(path);
    journal_.note("unmount", path);
    changed();
    return description;
}

std::vector<MountDescription> SimulatedVolumes::forceUnmountDevices(
    const std::unordered_set<std::string>& names) {
    std::vector<std::string> paths;
    for (const auto& mounted : mounts_) {
        if (names.contains(bsdNameOf(mounted->description))) {
            paths.push_back(mounted->description.path);
        }
    }
    std::vector<MountDescription> unmounted;
    for (auto path = paths.rbegin(); path != paths.rend(); ++path) {
        unmounted.push_back(*forceUnmount(*path));
    }
    std::reverse(unmounted.begin(), unmounted.end());
    return unmounted;
}

void SimulatedVolumes::forgetChanges() { toldNumbers_ = localNumbers(); }

bool SimulatedVolumes::setSpace(const std::string& path, std::uint64_t sizeBytes,
                                std::uint64_t freeBytes) {
    Mounted* mounted = mountedAt(path);
    if (mounted) {
        mounted->description.sizeBytes = sizeBytes;
        mounted->description.freeBytes = freeBytes;
        applyToFileSystem(*mounted);
        journal_.note("space", fmt::format("{}: {} of {} free", path, freeBytes, sizeBytes));
    }
    return mounted;
}

bool SimulatedVolumes::setFreeBytes(const std::string& path, std::uint64_t freeBytes) {
    const Mounted* mounted = mountedAt(path);
    return mounted && setSpace(path, mounted->description.sizeBytes, freeBytes);
}

bool SimulatedVolumes::setWritable(const std::string& path, bool isWritable) {
    Mounted* mounted = mountedAt(path);
    if (mounted) {
        mounted->description.isWritable = isWritable;
        applyToFileSystem(*mounted);
    }
    return mounted;
}

bool SimulatedVolumes::setVolumeFlags(const std::string& path, std::uint16_t flags) {
    Mounted* mounted = mountedAt(path);
    if (mounted) {
        mounted->description.volumeFlags = flags;
    }
    return mounted;
}

bool SimulatedVolumes::setBusy(const std::string& path, bool isBusy) {
    Mounted* mounted = mountedAt(path);
    if (mounted) {
        mounted->isBusy = isBusy;
    }
    return mounted;
}

bool SimulatedVolumes::setUnreadable(const std::string& path, bool isUnreadable) {
    Mounted* mounted = mountedAt(path);
    if (mounted) {
        mounted->isUnreadable = isUnreadable;
    }
    return mounted;
}

bool SimulatedVolumes::setSlow(const std::string& path, std::chrono::microseconds duration) {
    Mounted* mounted = mountedAt(path);
    if (mounted) {
        mounted->delay = duration;
    }
    return mounted;
}

void SimulatedVolumes::setStatusOfIndex(std::size_t index, OSErr status) {
    if (status == 0) {
        statusesOfIndexes_.erase(index);
    } else {
        statusesOfIndexes_[index] = status;
    }
}

std::optional<MountDescription> SimulatedVolumes::describe(const std::string& path) {
    const Mounted* mounted = mountedAt(path);
    return mounted ? std::optional(mounted->description) : std::nullopt;
}

int SimulatedVolumes::unmountRequests() const { return unmountRequests_; }

SimulatedVolumes::Mounted* SimulatedVolumes::mountedAt(std::string_view path) {
    const auto& paths = tables().byPath;
    const auto found = paths.find(std::string(path));
    return found == paths.end() ? nullptr : found->second;
}

const SimulatedVolumes::Tables& SimulatedVolumes::tables() {
    if (tables_) {
        return *tables_;
    }
    auto made = std::make_unique<Tables>();
    std::unordered_set<std::string> seenDevices;
    made->table.reserve(mounts_.size());  // the index below points into it
    for (const auto& mounted : mounts_) {
        const MountDescription& mount = mounted->description;
        made->table.push_back({mount.path, mount.device, mount.type});
        made->firstEntryAt.emplace(made->table.back().mountOnName, made->table.size() - 1);
        if (mount.kind == MountKind::pseudo || !seenDevices.insert(mount.device).second) {
            continue;
        }
        made->volumes.push_back(mounted.get());
        made->byReferenceNumber.emplace(mounted->referenceNumber, mounted.get());
        made->byPath.emplace(mount.path, mounted.get());
        if (mount.kind == MountKind::local) {
            made->localPaths.push_back(mount.path);
            if (std::string bsdName = bsdNameOf(mount); !bsdName.empty()) {
                made->byDevice.emplace(std::move(bsdName), mounted.get());
            }
        }
    }
    tables_ = std::move(made);
    return *tables_;
}

void SimulatedVolumes::changed() {
    if (retiredAtPass_ != runLoop_.passes()) {
        retiredTables_.clear();
        retiredAtPass_ = runLoop_.passes();
    }
    if (tables_) {
        retiredTables_.push_back(std::move(tables_));
    }
    if (!isTellingPosted_) {
        isTellingPosted_ = true;
        runLoop_.post([this] { tell(); });
    }
}

// One event of each kind for all that changed since the last telling.
void SimulatedVolumes::tell() {
    isTellingPosted_ = false;
    std::unordered_set<std::uint64_t> numbers = localNumbers();
    const auto hasOneOutside = [](const auto& these, const auto& those) {
        return std::any_of(these.begin(), these.end(),
                           [&](auto number) { return !those.contains(number); });
    };
    const bool hasAppeared = hasOneOutside(numbers, toldNumbers_);
    const bool hasGone = hasOneOutside(toldNumbers_, numbers);
    toldNumbers_ = std::move(numbers);
    if (hasGone && didUnmount_) {
        didUnmount_();
    }
    if (hasAppeared && didMount_) {
        didMount_();
    }
}

std::unordered_set<std::uint64_t> SimulatedVolumes::localNumbers() {
    std::unordered_set<std::uint64_t> numbers;
    for (const Mounted* mounted : tables().volumes) {
        if (mounted->description.kind == MountKind::local) {
            numbers.insert(mounted->number);
        }
    }
    return numbers;
}

std::int16_t SimulatedVolumes::referenceNumberFor(const MountDescription& mount) {
    if (mount.referenceNumber != 0) {
        referenceNumbers_[mount.device] = mount.referenceNumber;
        return mount.referenceNumber;
    }
    const auto [number, isNew] = referenceNumbers_.emplace(mount.device, nextReferenceNumber_);
    if (isNew) {
        --nextReferenceNumber_;
    }
    return number->second;
}

void SimulatedVolumes::applyToFileSystem(const Mounted& mounted) {
    // Without a size it is a pseudo file system, which is never full.
    fileSystem_.setFull(mounted.description.device,
                        mounted.description.sizeBytes > 0 && mounted.description.freeBytes == 0);
    fileSystem_.setReadOnly(mounted.description.device, !mounted.description.isWritable);
}

std::string SimulatedVolumes::nameOf(const Mounted& mounted) {
    const MountDescription& mount = mounted.description;
    const std::string name =
        mount.displayName.empty() ? Volumes::displayName(mount.path) : mount.displayName;
    return mounted.countOfName == 0 ? name : fmt::format("{} {}", name, mounted.countOfName);
}

OSErrOr<VolumeInfo> SimulatedVolumes::infoOf(const Mounted* mounted) {
    if (!mounted) {
        return {nsvErr, {}};
    }
    const MountDescription& mount = mounted->description;
    VolumeInfo info;
    info.referenceNumber = mounted->referenceNumber;
    info.root = {mount.path};
    info.name = nameOf(*mounted);
    // A server is named by an address; which one does not matter, but that it is not 0.
    info.serverAddress = mount.kind == MountKind::network ? 1 : 0;
    info.bsdName = bsdNameOf(mount);
    info.fileSystemId = mount.fileSystemId;
    info.signature = mount.signature;
    info.flags = mount.volumeFlags;
    return {0, info};
}

}  // namespace korvane
