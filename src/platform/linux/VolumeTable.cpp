#include "platform/linux/VolumeTable.h"

#include <optional>

namespace korvane {
namespace {

// The file systems that spread over several block devices have anonymous numbers; the source names
// one of the devices.
bool isOnSeveralDevices(const std::string& typeName) {
    return typeName == "btrfs" || typeName == "bcachefs";
}

// The block device below a row, or nothing for pseudo and network file systems. Only a row that
// names a device by its path leads to a look at that path, which lies in /dev.
std::optional<BlockDevice> blockDeviceBelow(const MountRow& row, const BlockDevices& devices) {
    if (row.device.major == 0) {
        if (!isOnSeveralDevices(row.typeName)) {
            return std::nullopt;
        }
        const std::string first = row.source.substr(0, row.source.find(':'));
        const auto number = BlockDevices::numberOfNode(first);
        return number ? devices.describe(*number) : std::nullopt;
    }
    if (auto device = devices.describe(row.device)) {
        return device;
    }
    // A device that was pulled while it was mounted, or a machine without sysfs.
    constexpr std::string_view kNodes = "/dev/";
    if (!row.source.starts_with(kNodes)) {
        return std::nullopt;
    }
    BlockDevice device;
    device.name = kernelNameOfNode(row.source.substr(kNodes.size()));
    device.fileSystemIdentity = "device:" + device.name;
    return device;
}

template <typename Map, typename Key>
std::size_t indexOf(const Map& map, const Key& key) {
    const auto found = map.find(key);
    return found == map.end() ? MountFacts::kNoVolume : found->second;
}

}  // namespace

VolumeTable::VolumeTable(const std::vector<MountRow>& rows, const BlockDevices& devices,
                         VolumeMemory& memory, const VolumeTable* previous) {
    const std::vector<std::size_t> reachable = reachableMounts(rows);
    entries_.reserve(reachable.size());
    facts_.reserve(reachable.size());
    for (const std::size_t i : reachable) {
        addRow(rows[i], devices, previous);
    }
    giveNumbers(memory);
    index();
}

void VolumeTable::addRow(const MountRow& row, const BlockDevices& devices,
                         const VolumeTable* previous) {
    MountFacts facts{.volumeIndex = volumeOfRow(row, devices, previous),
                     .mountId = row.mountId,
                     .isReadOnly = row.readOnly,
                     .mountPointBytes = row.mountPoint};
    const LocalVolume* const volume = volumeOf(facts);
    const bool isHfs = row.typeName == "hfsplus" || row.typeName == "hfs";
    entries_.push_back(
        {textOfBytes(row.mountPoint),
         volume != nullptr ? textOfBytes("/dev/" + volume->device.name) : textOfBytes(row.source),
         isHfs ? "hfs" : textOfBytes(row.typeName)});
    facts_.push_back(std::move(facts));
}

std::size_t VolumeTable::volumeOfRow(const MountRow& row, const BlockDevices& devices,
                                     const VolumeTable* previous) {
    if (const auto known = volumeOfSuperBlock_.find(row.device);
        known != volumeOfSuperBlock_.end()) {
        return known->second;
    }
    LocalVolume volume;
    const std::size_t before = previous != nullptr
                                   ? indexOf(previous->volumeOfSuperBlock_, row.device)
                                   : MountFacts::kNoVolume;
    if (before != MountFacts::kNoVolume && previous->volumes_[before].mountId == row.mountId) {
        volume = previous->volumes_[before];
    } else if (auto device = blockDeviceBelow(row, devices)) {
        volume.device = std::move(*device);
    } else {
        return MountFacts::kNoVolume;
    }
    volume.mountPointBytes = row.mountPoint;
    volume.mountPoint = textOfBytes(row.mountPoint);
    volume.typeName = row.typeName;
    volume.mountId = row.mountId;
    volume.superBlock = row.device;
    volume.isReadOnly = row.readOnly;
    volumes_.push_back(std::move(volume));
    volumeOfSuperBlock_.emplace(row.device, volumes_.size() - 1);
    return volumes_.size() - 1;
}

void VolumeTable::giveNumbers(VolumeMemory& memory) {
    std::set<std::string> identities;
    for (const LocalVolume& volume : volumes_) {
        if (volume.number != 0) {
            identities.insert(volume.device.fileSystemIdentity);
        }
    }
    for (LocalVolume& volume : volumes_) {
        if (volume.number != 0) {
            continue;
        }
        // A copy of a mounted file system (a snapshot, a clone) carries the same UUID.
        std::string& identity = volume.device.fileSystemIdentity;
        if (!identities.insert(identity).second) {
            identity += "@" + volume.device.name;
            identities.insert(identity);
        }
        volume.number = memory.numberFor(identity).value_or(0);
    }
    memory.keepOnly(identities);
}

void VolumeTable::index() {
    for (std::size_t i = 0; i < entries_.size(); ++i) {
        entryOfPath_.emplace(entries_[i].mountOnName, i);
    }
    volumePaths_.reserve(volumes_.size());
    for (std::size_t i = 0; i < volumes_.size(); ++i) {
        volumePaths_.push_back(volumes_[i].mountPoint);
        volumeOfPath_.emplace(volumes_[i].mountPoint, i);
        volumeOfDevice_.emplace(volumes_[i].device.name, i);
        volumeOfNumber_.emplace(volumes_[i].number, i);
    }
}

const MountEntry* VolumeTable::entryAt(std::string_view path) const {
    const auto found = entryOfPath_.find(path);
    return found == entryOfPath_.end() ? nullptr : &entries_[found->second];
}

const MountFacts* VolumeTable::factsAt(std::string_view path) const {
    const auto found = entryOfPath_.find(path);
    return found == entryOfPath_.end() ? nullptr : &facts_[found->second];
}

const LocalVolume* VolumeTable::volumeOf(const MountFacts& facts) const {
    return facts.volumeIndex == MountFacts::kNoVolume ? nullptr : &volumes_[facts.volumeIndex];
}

const LocalVolume* VolumeTable::volumeAt(std::string_view path) const {
    const std::size_t i = indexOf(volumeOfPath_, path);
    return i == MountFacts::kNoVolume ? nullptr : &volumes_[i];
}

const LocalVolume* VolumeTable::volumeNumbered(std::int16_t number) const {
    const std::size_t i = number == 0 ? MountFacts::kNoVolume : indexOf(volumeOfNumber_, number);
    return i == MountFacts::kNoVolume ? nullptr : &volumes_[i];
}

const LocalVolume* VolumeTable::volumeOnDevice(std::string_view name) const {
    const std::size_t i = indexOf(volumeOfDevice_, name);
    return i == MountFacts::kNoVolume ? nullptr : &volumes_[i];
}

bool VolumeTable::hasVolumeMissingIn(const VolumeTable& other) const {
    for (const LocalVolume& volume : volumes_) {
        const LocalVolume* const same = other.volumeAt(volume.mountPoint);
        if (same == nullptr || same->number != volume.number ||
            same->device.name != volume.device.name) {
            return true;
        }
    }
    return false;
}

}  // namespace korvane
