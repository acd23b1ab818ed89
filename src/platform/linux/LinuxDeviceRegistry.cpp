#include "platform/linux/LinuxDeviceRegistry.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/linux/AtaCommand.h"

namespace korvane {
namespace {

// A service's number: which tree it belongs to, and which node of that tree it is. A million nodes
// are more than the kernel has device numbers for.
constexpr std::uint32_t kNodeBits = 20;
constexpr std::uint32_t kNodeMask = (1U << kNodeBits) - 1;
constexpr std::uint32_t kGenerationMask = (1U << (32 - kNodeBits)) - 1;

constexpr char kBlockClass[] = "class/block";

// The kernel tells of all kinds of devices, of batteries every half minute, and a daemon that is at
// rest looks once an hour. Some 800 events fit in.
constexpr int kEventBufferBytes = 1024 * 1024;

// Several paths to one NVMe namespace show as hidden disks beside it: nvme0c1n1.
bool isHiddenPath(const std::string& kernelName) {
    return kernelName.starts_with("nvme") && kernelName.find('c') != std::string::npos;
}

}  // namespace

LinuxDeviceRegistry::LinuxDeviceRegistry(LinuxRunLoop& loop, const LinuxDevicePlaces& places,
                                         DriveCommands& commands)
    : loop_(loop),
      sysfs_(places.sysfs),
      udevDatabase_(places.udevData),
      deviceFiles_(places.deviceFiles),
      commands_(commands),
      udev_(places.takesEvents ? udev_new() : nullptr),
      kernel_(listenTo("kernel")),
      udevd_(listenTo("udev")) {}

LinuxDeviceRegistry::~LinuxDeviceRegistry() = default;

// The kernel's events come with a change itself; udevd's some time later, when its database has
// been written. A machine without udevd has none of those.
LinuxDeviceRegistry::Monitor LinuxDeviceRegistry::listenTo(const char* sender) {
    if (!udev_) {
        return nullptr;
    }
    Monitor monitor{udev_monitor_new_from_netlink(udev_.get(), sender)};
    if (!monitor ||
        udev_monitor_filter_add_match_subsystem_devtype(monitor.get(), "block", nullptr) < 0 ||
        udev_monitor_enable_receiving(monitor.get()) < 0) {
        return nullptr;
    }
    // When it is full everything is read again, which is no harm: the smaller buffer does too.
    (void)udev_monitor_set_receive_buffer_size(monitor.get(), kEventBufferBytes);
    return monitor;
}

void LinuxDeviceRegistry::takeEvents(udev_monitor& monitor) {
    for (;;) {
        errno = 0;
        const std::unique_ptr<udev_device, UdevCloser> device{
            udev_monitor_receive_device(&monitor)};
        if (!device) {
            // The socket overflowed: what was lost is unknown.
            if (errno == ENOBUFS) {
                everythingChanged();
            }
            return;
        }
        if (const char* const path = udev_device_get_syspath(device.get()); path != nullptr) {
            const char* const action = udev_device_get_action(device.get());
            if (action != nullptr && std::string_view{action} == "change") {
                deviceChanged(lastComponent(path));
            } else {
                deviceReplaced(lastComponent(path));
            }
            // Of a partition, the disk; of a disk, a folder that is no device.
            deviceChanged(lastComponent(parentFolder(path)));
        }
    }
}

void LinuxDeviceRegistry::deviceChanged(const std::string& kernelName) {
    isStale_ = true;
    if (const auto folder = folders_.find(kernelName); folder != folders_.end()) {
        disksInLine_.erase(lastComponent(parentFolder(folder->second)));
        folders_.erase(folder);
    }
    disksInLine_.erase(kernelName);
}

void LinuxDeviceRegistry::deviceReplaced(const std::string& kernelName) {
    knownDrives_.erase(kernelName);
    deviceChanged(kernelName);
}

void LinuxDeviceRegistry::everythingChanged() {
    isStale_ = true;
    knownDrives_.clear();
    folders_.clear();
    disksInLine_.clear();
}

std::vector<BlockFolder> LinuxDeviceRegistry::findDisks(const std::vector<std::string>& names) {
    std::map<std::string, std::string> folders;
    for (const std::string& name : names) {
        if (const auto known = folders_.find(name); known != folders_.end()) {
            folders.insert(*known);
        } else if (auto path = sysfs_.blockDevicePath(name); path && !isHiddenPath(name)) {
            folders.emplace(name, std::move(*path));
        }
    }
    folders_ = std::move(folders);
    std::map<std::string, BlockFolder> disks;
    for (const auto& [name, path] : folders_) {
        // A partition's folder lies in its disk's.
        const std::string above = lastComponent(parentFolder(path));
        if (!folders_.contains(above)) {
            disks[name].kernelName = name;
            disks[name].path = path;
        } else {
            disks[above].partitions.push_back({.kernelName = name, .path = path, .partitions = {}});
        }
    }
    std::vector<BlockFolder> found;
    for (auto& [name, disk] : disks) {
        std::sort(disk.partitions.begin(), disk.partitions.end(),
                  [](const BlockFolder& a, const BlockFolder& b) {
                      return comesBefore(a.kernelName, b.kernelName);
                  });
        found.push_back(std::move(disk));
    }
    return found;
}

void LinuxDeviceRegistry::lookForChanges() {
    std::uint64_t turn = 0;
    (void)sd_event_get_iteration(loop_.event(), &turn);  // cannot fail: the loop exists
    if (std::exchange(turnOfLastLook_, turn) == turn) {
        return;
    }
    // With nobody to tell of changes the list of devices is at least looked at.
    isStale_ = isStale_ || !kernel_;
    for (const Monitor* const monitor : {&kernel_, &udevd_}) {
        if (*monitor) {
            takeEvents(**monitor);
        }
    }
}

bool LinuxDeviceRegistry::refresh() {
    lookForChanges();
    if (tree_ && !isStale_) {
        return true;
    }
    const std::vector<std::string> names = sysfs_.list(kBlockClass);
    if (names.empty() && !sysfs_.exists(kBlockClass)) {
        return false;
    }
    Disks disks;
    std::set<std::string> inLine;
    for (const BlockFolder& folder : findDisks(names)) {
        const auto known = disks_.find(folder.kernelName);
        const bool isKnown = known != disks_.end() && disksInLine_.contains(folder.kernelName) &&
                             known->second.partitions.size() == folder.partitions.size();
        disksRead_ += isKnown ? 0 : 1;
        disks.emplace(folder.kernelName, isKnown ? known->second : readDiskFacts(folder));
        inLine.insert(folder.kernelName);
    }
    disksInLine_ = std::move(inLine);
    isStale_ = false;
    // Most events change nothing that is told here; then the services stay as they are.
    if (!tree_ || disks != disks_) {
        std::erase_if(knownDrives_,
                      [&](const auto& known) { return !disks.contains(known.first); });
        tree_ = std::make_unique<DeviceTree>(disks);
        disks_ = std::move(disks);
        ++generation_;
    }
    return true;
}

DiskFacts LinuxDeviceRegistry::readDiskFacts(const BlockFolder& folder) {
    DiskFacts disk = readDisk(folder, sysfs_, udevDatabase_);
    KnownDrive& known = knownDrives_[disk.kernelName];
    if (known.ancestors != disk.ancestors) known = {.ancestors = disk.ancestors};
    if (!disk.wantsIdentity) return disk;
    const std::shared_ptr<DriveMemory>& memory = known.memory;
    if (!memory->identified) {
        const SmartOpening opened = openAtaSmart(commands_, nodeOfDisk(disk.media.name), memory);
        const DriveStatus status = opened.smart ? opened.smart->identify().status : opened.status;
        // What knows no such question is no ATA drive, and need not be asked again; zeros stand for
        // that. What has not answered is asked when the disk is read the next time.
        if (status == EOPNOTSUPP || status == ENOTTY) memory->identified = IdentifyData{};
        if (status == kDriveNotPermitted) disk.drive.set("SMART Out Of Reach", true);
    }
    if (memory->identified) addIdentity(disk, *memory->identified);
    return disk;
}

std::string LinuxDeviceRegistry::nodeOfDisk(const std::string& kernelName) const {
    return deviceFiles_ + "/" + nodeNameOfKernelName(kernelName);
}

ServiceId LinuxDeviceRegistry::serviceOf(std::uint32_t node) const {
    const auto tree = static_cast<std::uint32_t>(generation_) & kGenerationMask;
    return ServiceId{(tree << kNodeBits) | (node & kNodeMask)};
}

const DeviceTree::Node* LinuxDeviceRegistry::nodeOf(ServiceId service) const {
    const auto number = static_cast<std::uint32_t>(service);
    if (!tree_ || number >> kNodeBits != (generation_ & kGenerationMask) ||
        (number & kNodeMask) >= tree_->nodes().size()) {
        return nullptr;
    }
    return &tree_->nodes()[number & kNodeMask];
}

std::optional<std::uint64_t> LinuxDeviceRegistry::generation() {
    return refresh() ? std::optional{generation_} : std::nullopt;
}

std::optional<std::vector<ServiceId>> LinuxDeviceRegistry::services(std::string_view className) {
    if (!refresh()) {
        return std::nullopt;
    }
    std::vector<ServiceId> services;
    for (const std::uint32_t node : tree_->nodesOfClass(className)) {
        services.push_back(serviceOf(node));
    }
    return services;
}

std::optional<std::vector<ServiceId>> LinuxDeviceRegistry::servicesNamed(std::string_view className,
                                                                         std::string_view bsdName) {
    if (!refresh()) {
        return std::nullopt;
    }
    std::vector<ServiceId> services;
    for (const std::uint32_t node : tree_->nodesNamed(className, bsdName)) {
        services.push_back(serviceOf(node));
    }
    return services;
}

std::optional<PropertyList> LinuxDeviceRegistry::property(ServiceId service, std::string_view key) {
    const DeviceTree::Node* const node = nodeOf(service);
    const PropertyList* const value = node != nullptr ? node->properties.find(key) : nullptr;
    return value != nullptr ? std::optional{*value} : std::nullopt;
}

std::optional<Dictionary> LinuxDeviceRegistry::properties(ServiceId service) {
    const DeviceTree::Node* const node = nodeOf(service);
    return node != nullptr ? std::optional{node->properties} : std::nullopt;
}

std::optional<ServiceId> LinuxDeviceRegistry::parent(ServiceId service) {
    const DeviceTree::Node* const node = nodeOf(service);
    return node != nullptr && node->parent != DeviceTree::kNone
               ? std::optional{serviceOf(node->parent)}
               : std::nullopt;
}

std::optional<ServiceId> LinuxDeviceRegistry::firstChild(ServiceId service) {
    const DeviceTree::Node* const node = nodeOf(service);
    return node != nullptr && node->firstChild != DeviceTree::kNone
               ? std::optional{serviceOf(node->firstChild)}
               : std::nullopt;
}

std::optional<std::string> LinuxDeviceRegistry::diskPath(unsigned number) {
    if (!refresh() || number >= tree_->numberedDisks().size()) {
        return std::nullopt;
    }
    // As the path of its media is put together where that is asked for.
    return "/dev/" + tree_->numberedDisks()[number];
}

SmartOpening LinuxDeviceRegistry::openSmart(ServiceId drive) {
    const DeviceTree::Node* const node = nodeOf(drive);
    const DeviceTree::Node* const media = node != nullptr && node->firstChild != DeviceTree::kNone
                                              ? &tree_->nodes()[node->firstChild]
                                              : nullptr;
    const std::string name =
        media != nullptr ? stringValue(media->properties.find("BSD Name")) : std::string{};
    if (name.empty()) {
        return {.status = ENODEV, .smart = nullptr};
    }
    const std::string path = nodeOfDisk(name);
    return name.starts_with("nvme") ? openNvmeSmart(commands_, path)
                                    : openAtaSmart(commands_, path, knownDrives_[name].memory);
}

}  // namespace korvane
