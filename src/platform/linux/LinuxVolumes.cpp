#include "platform/linux/LinuxVolumes.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/linux/MountTable.h"

namespace korvane {
namespace {

// TN1150: 'H+'.
constexpr std::uint16_t kHfsPlusSignature = 0x482B;
// Files.h knows no identifier of the file systems that are not HFS; any but 0 will do.
constexpr std::uint16_t kOtherFileSystemId = 1;

// The memory's folder is made by the daemon soon after this object. Where it never comes, or never
// becomes writable, trying once an hour costs nothing.
constexpr std::chrono::seconds kFirstRetry{1};
constexpr std::chrono::seconds kLastRetry{3600};

// What a path leads to now.
struct Place {
    std::uint64_t mountId = 0;  // 0 where the kernel does not tell (before 5.8)
    dev_t device = 0;
};

std::optional<Place> placeOf(const std::string& path) {
    struct statx status {};
    if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_MNT_ID,
                &status) != 0) {
        return std::nullopt;
    }
    return Place{.mountId = (status.stx_mask & STATX_MNT_ID) != 0 ? status.stx_mnt_id : 0,
                 .device = makedev(status.stx_dev_major, status.stx_dev_minor)};
}

bool leadsTo(const Place& place, std::uint64_t mountId) {
    return place.mountId == 0 || place.mountId == mountId;
}

}  // namespace

LinuxVolumes::LinuxVolumes(LinuxRunLoop& loop, const LinuxVolumesPlaces& places)
    : loop_(loop),
      devices_(Sysfs{places.sysfs}, UdevDatabase{places.udevData}),
      memory_(places.memoryFile),
      links_(places.keepsLinks ? places.linksFolder : "", memory_),
      watch_(loop, places.mountTable, [this] { didChange(); }),
      table_(std::make_unique<VolumeTable>(std::vector<MountRow>{}, devices_, memory_, nullptr)),
      linksFolder_(places.linksFolder),
      nameOfMountPoint_(volumeLinksIn(places.linksFolder)),
      retryDelay_(kFirstRetry) {
    refresh();
    hasAppeared_ = false;  // what is there at the start has not appeared
    replaced_.clear();
}

LinuxVolumes::~LinuxVolumes() = default;

void LinuxVolumes::refresh() {
    const auto text = watch_.read();
    // An unreadable table says nothing about what is mounted.
    if (!text) {
        return;
    }
    auto table =
        std::make_unique<VolumeTable>(parseMountTable(*text), devices_, memory_, table_.get());
    hasAppeared_ = hasAppeared_ || table->hasVolumeMissingIn(*table_);
    hasGone_ = hasGone_ || table_->hasVolumeMissingIn(*table);
    replaced_.push_back(std::exchange(table_, std::move(table)));
    retryDelay_ = kFirstRetry;
    remember();
}

void LinuxVolumes::didChange() {
    refresh();
    replaced_.clear();
    const bool hasGone = std::exchange(hasGone_, false);
    const bool hasAppeared = std::exchange(hasAppeared_, false);
    // Copies, since a callback may set another.
    if (const auto callback = didUnmount_; hasGone && callback) {
        callback();
    }
    if (const auto callback = didMount_; hasAppeared && callback) {
        callback();
    }
}

void LinuxVolumes::remember() {
    retry_.reset();
    std::vector<std::string> mountPoints;
    mountPoints.reserve(table_->volumes().size());
    for (const LocalVolume& volume : table_->volumes()) {
        mountPoints.push_back(volume.mountPointBytes);
    }
    const bool isInLine = links_.update(mountPoints);
    giveNames(mountPoints);
    if (memory_.save() && isInLine) {
        return;
    }
    retry_ = loop_.startTimer(retryDelay_, Repeat::once, [this] { remember(); });
    retryDelay_ = std::min(retryDelay_ * 2, kLastRetry);
}

// A volume keeps the name that it has had so far; a new one goes by the name of its link.
void LinuxVolumes::giveNames(const std::vector<std::string>& mountPoints) {
    for (const auto& [name, mountPoint] : memory_.links()) {
        nameOfMountPoint_.emplace(mountPoint, name);
    }
    nameOfMountPoint_ = namesForVolumes(linksFolder_, mountPoints, nameOfMountPoint_);
}

std::string LinuxVolumes::nameOf(const LocalVolume& volume) const {
    return textOfBytes(nameOfMountPoint_.at(volume.mountPointBytes));
}

std::string LinuxVolumes::displayName(std::string_view path) {
    const LocalVolume* const volume = table_->volumeAt(path);
    return volume != nullptr ? nameOf(*volume) : Volumes::displayName(path);
}

OSErrOr<VolumeInfo> LinuxVolumes::infoOf(const LocalVolume* volume) const {
    if (volume == nullptr) {
        return {.status = nsvErr, .value = {}};
    }
    // More volumes are mounted than there are numbers.
    if (volume->number == 0) {
        return {.status = ioErr, .value = {}};
    }
    VolumeInfo info;
    info.referenceNumber = volume->number;
    info.root.rootPath = volume->mountPoint;
    info.name = nameOf(*volume);
    info.bsdName = volume->device.name;
    const bool isHfsPlus = volume->typeName == "hfsplus";
    info.fileSystemId = isHfsPlus || volume->typeName == "hfs" ? 0 : kOtherFileSystemId;
    info.signature = isHfsPlus ? kHfsPlusSignature : 0;
    info.flags =
        static_cast<std::uint16_t>((volume->device.isReadOnly ? kVolumeHardwareLocked : 0) |
                                   (volume->isReadOnly ? kVolumeSoftwareLocked : 0));
    return {.status = 0, .value = std::move(info)};
}

const std::vector<MountEntry>& LinuxVolumes::mountTable() { return table_->entries(); }

const MountEntry* LinuxVolumes::mountAt(std::string_view path) { return table_->entryAt(path); }

const std::vector<std::string>& LinuxVolumes::mountedLocalVolumePaths() {
    return table_->volumePaths();
}

std::string LinuxVolumes::pathBytes(const std::string& path) const { return bytesOfText(path); }

OSErrOr<VolumeInfo> LinuxVolumes::volumeInfoByIndex(std::size_t index) {
    const auto& volumes = table_->volumes();
    return infoOf(index >= 1 && index <= volumes.size() ? &volumes[index - 1] : nullptr);
}

OSErrOr<VolumeInfo> LinuxVolumes::volumeInfoByReferenceNumber(std::int16_t number) {
    return infoOf(table_->volumeNumbered(number));
}

OSErrOr<VolumeInfo> LinuxVolumes::volumeInfoOfRoot(const FSRef& root) {
    return infoOf(table_->volumeAt(root.rootPath));
}

OSErrOr<VolumeInfo> LinuxVolumes::volumeInfoByDevice(std::string_view bsdName) {
    return infoOf(table_->volumeOnDevice(bsdName));
}

std::optional<FileSystemFlags> LinuxVolumes::fileSystemFlags(const std::string& path) {
    const MountFacts* const facts = table_->factsAt(path);
    if (facts == nullptr) {
        return std::nullopt;
    }
    const LocalVolume* const volume = table_->volumeOf(*facts);
    return FileSystemFlags{.isRemovable = volume != nullptr && volume->device.isRemovable,
                           .isWritable = !facts->isReadOnly,
                           .isUnmountable = path != "/"};
}

std::optional<FileSystemAttributes> LinuxVolumes::fileSystemAttributes(const std::string& path) {
    const MountFacts* const facts = table_->factsAt(path);
    if (facts == nullptr || facts->volumeIndex == MountFacts::kNoVolume) {
        return std::nullopt;
    }
    struct statvfs sizes {};
    if (::statvfs(facts->mountPointBytes.c_str(), &sizes) != 0) {
        return std::nullopt;
    }
    // Asked second: when the volume has gone since the table was read, the sizes are those of the
    // file system that its folder lies on.
    const auto place = placeOf(facts->mountPointBytes);
    if (!place || !leadsTo(*place, facts->mountId)) {
        return std::nullopt;
    }
    return FileSystemAttributes{.sizeBytes = std::uint64_t{sizes.f_blocks} * sizes.f_frsize,
                                .freeBytes = std::uint64_t{sizes.f_bavail} * sizes.f_frsize,
                                // A subvolume's files carry a number that the table does not have.
                                .number = place->device};
}

bool LinuxVolumes::unmount(std::int16_t referenceNumber) {
    const LocalVolume* const volume = table_->volumeNumbered(referenceNumber);
    if (volume == nullptr || volume->mountPoint == "/") {
        return false;
    }
    // Something else may have been mounted over it since the table was read.
    const auto place = placeOf(volume->mountPointBytes);
    if (!place || !leadsTo(*place, volume->mountId) ||
        ::umount2(volume->mountPointBytes.c_str(), UMOUNT_NOFOLLOW) != 0) {
        return false;
    }
    refresh();
    return true;
}

void LinuxVolumes::setDidMount(std::function<void()> callback) { didMount_ = std::move(callback); }

void LinuxVolumes::setDidUnmount(std::function<void()> callback) {
    didUnmount_ = std::move(callback);
}

}  // namespace korvane
