#include "platform/VolumeOfPath.h"

namespace korvane {

bool isAtOrBelow(std::string_view path, std::string_view folder) {
    if (folder == "/") return true;
    return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

std::optional<PathVolume> volumeOfPath(Volumes& volumes, std::string_view path) {
    const MountEntry* nearest = nullptr;
    for (const MountEntry& entry : volumes.mountTable()) {
        // Of two at one place the later one is what the path leads to.
        if (isAtOrBelow(path, entry.mountOnName) &&
            (!nearest || entry.mountOnName.size() >= nearest->mountOnName.size())) {
            nearest = &entry;
        }
    }
    if (!nearest) return std::nullopt;
    OSErrOr<VolumeInfo> info = volumes.volumeInfoOfRoot(FSRef{nearest->mountOnName});
    // Not the volume's first mount: its device tells which volume it is.
    constexpr std::string_view kDevices = "/dev/";
    const std::string_view device = nearest->mountFromName;
    if (info.status != 0 && device.starts_with(kDevices)) {
        info = volumes.volumeInfoByDevice(device.substr(kDevices.size()));
    }
    if (info.status != 0 || info.value.serverAddress != 0) return std::nullopt;
    return PathVolume{std::move(info.value), nearest->mountOnName};
}

}  // namespace korvane
