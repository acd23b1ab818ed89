#include "storage/VolumeLookups.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "storage/PathText.h"

namespace korvane {

namespace {

constexpr char kDevicePathPrefix[] = "/dev/";

// Volume signatures (Apple Technical Note TN1150).
constexpr std::uint16_t kHfsPlusSignature = 0x482B;
constexpr std::uint16_t kHfsxSignature = 0x4858;

bool isLockedHfsPlus(const VolumeInfo& info) {
    const bool isHfsPlus = info.fileSystemId == 0 && (info.signature == kHfsPlusSignature ||
                                                      info.signature == kHfsxSignature);
    return isHfsPlus && (info.flags & (kVolumeHardwareLocked | kVolumeSoftwareLocked)) != 0;
}

}  // namespace

OSErrOr<std::vector<FSRef>> FSGetMountedVolumes(Volumes& volumes) {
    std::vector<FSRef> roots;
    for (std::size_t index = 1;; ++index) {
        OSErrOr<VolumeInfo> info = volumes.volumeInfoByIndex(index);
        if (info.status == nsvErr) return {.status = 0, .value = std::move(roots)};
        if (info.status != 0) return {.status = info.status, .value = {}};
        roots.push_back(std::move(info.value.root));
    }
}

OSErrOr<std::int16_t> FSGetVRefNum(Volumes& volumes, const FSRef& root) {
    const OSErrOr<VolumeInfo> info = volumes.volumeInfoOfRoot(root);
    return {.status = info.status, .value = info.value.referenceNumber};
}

std::int16_t getVolumeRefNumber(Volumes& volumes, std::string_view path) {
    const std::optional<std::string_view> key = fromLastSlash(path);
    if (!key) return 0;
    // Empty after a failure, which then finds nothing.
    const OSErrOr<std::vector<FSRef>> mounted = FSGetMountedVolumes(volumes);
    const auto found =
        std::find_if(mounted.value.begin(), mounted.value.end(),
                     [&](const FSRef& root) { return fromLastSlash(root.rootPath) == key; });
    return found == mounted.value.end() ? std::int16_t{0} : FSGetVRefNum(volumes, *found).value;
}

std::string getVolumeMountFromName(Volumes& volumes, std::string_view mountPoint) {
    const MountEntry* mount = volumes.mountAt(mountPoint);
    return mount ? mount->mountFromName : std::string();
}

std::int16_t getVolumeReferenceUsingVolumeMountFromName(Volumes& volumes, std::string_view device) {
    if (device.empty()) return 0;
    if (device.starts_with(kDevicePathPrefix)) device = lastPathComponent(device);
    const OSErrOr<VolumeInfo> info = volumes.volumeInfoByDevice(device);
    return info.status == 0 ? info.value.referenceNumber : std::int16_t{0};
}

bool GetVolumeWritable(Volumes& volumes, std::string_view mountPoint) {
    const std::int16_t number = getVolumeReferenceUsingVolumeMountFromName(
        volumes, getVolumeMountFromName(volumes, mountPoint));
    const OSErrOr<VolumeInfo> info = volumes.volumeInfoByReferenceNumber(number);
    return info.status != 0 || !isLockedHfsPlus(info.value);
}

bool GetVolumeHFS(Volumes& volumes, std::string_view path) {
    const std::optional<std::string_view> key = fromLastSlash(path);
    if (!key || path.ends_with('/')) return false;
    const std::vector<MountEntry>& table = volumes.mountTable();
    const auto found = std::find_if(table.begin(), table.end(), [&](const MountEntry& mount) {
        return fromLastSlash(mount.mountOnName) == key;
    });
    return found != table.end() && found->fileSystemTypeName == "hfs";
}

}  // namespace korvane
