// Questions about a disk or a partition, named by its BSD name ("sda", "disk2s2"), answered from
// the device registry. The probes keep nothing and report no error: where the registry cannot be
// read or has no answer, they give the neutral one.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/DeviceRegistry.h"

namespace korvane {

// The yes/no probes but the last take a name that begins with a medium's name for that medium, so
// that a partition counts as its whole disk too. So "disk1" answers for "disk10s2" as well, which
// is accepted.

// Whether the device hangs on an ATAPI interface.
[[nodiscard]] bool isATAPI(DeviceRegistry& registry, std::string_view bsdName);
// Whether it is a DVD or CD medium, or lies on one.
[[nodiscard]] bool isOpticalMedia(DeviceRegistry& registry, std::string_view bsdName);
// Whether it is made by software: a disk image, a disk in memory.
[[nodiscard]] bool isVirtualInterface(DeviceRegistry& registry, std::string_view bsdName);
// Whether the nearest device above it that knows its connection says "Internal".
[[nodiscard]] bool isInternalDrive(DeviceRegistry& registry, std::string_view bsdName);
// Whether the medium of exactly this name is encrypted.
[[nodiscard]] bool isCoreStorageEncrypted(DeviceRegistry& registry, std::string_view bsdName);

// What the drive behind a device is known by.
struct DeviceValue {
    int status = -1;         // 0 when there is an identifier, else -1
    std::string identifier;  // at most 511 bytes
};
// The identifier (GUID or serial) of the nearest device above the medium that has any; the medium
// is given by its path or its BSD name, in capitals or not. When the medium is found,
// `schemeOfPartition` is set to whether it holds HFS Plus by the partition table; else it is left
// as it was.
[[nodiscard]] DeviceValue GetDeviceValue(DeviceRegistry& registry, std::string_view device,
                                         bool& schemeOfPartition);

// Result of MyGetDeviceFilePath() when there is no path, or none that fits (KERN_FAILURE,
// mach/kern_return.h).
inline constexpr int kDevicePathFailure = 5;

struct DeviceFilePath {
    int status = kDevicePathFailure;  // 0 or kDevicePathFailure
    std::string path;                 // empty on a failure
};
// "/dev/" and the service's BSD name, where that is ASCII and fits a buffer of `bufferSizeBytes`
// together with its terminating zero byte.
[[nodiscard]] DeviceFilePath MyGetDeviceFilePath(DeviceRegistry& registry, ServiceId service,
                                                 std::size_t bufferSizeBytes);

}  // namespace korvane
