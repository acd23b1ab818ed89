// Translations between the three ways in which a mounted volume is named: its mount point
// ("/Volumes/Data"), its device ("/dev/sda1", or the BSD name "sda1") and its reference number; and
// what the inventory asks of a volume. They keep nothing; a failed look-up gives 0, the empty text
// or the answer said below. Mount points have the form that platform/Volumes.h gives them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Volumes.h"

namespace korvane {

// The roots of all mounted volumes, in the order of their indexes; none when the status is not 0.
[[nodiscard]] OSErrOr<std::vector<FSRef>> FSGetMountedVolumes(Volumes& volumes);

// The reference number of the volume whose root this is. There is a value on a failure too; what it
// is then says nothing.
[[nodiscard]] OSErrOr<std::int16_t> FSGetVRefNum(Volumes& volumes, const FSRef& root);

// The reference number of the first volume whose mount point has the path's last component, or 0.
// Only that component counts: "/Users/me/Data" finds a volume mounted at "/Volumes/Data".
[[nodiscard]] std::int16_t getVolumeRefNumber(Volumes& volumes, std::string_view path);

// The device path of the mount at exactly this path, or the empty text.
[[nodiscard]] std::string getVolumeMountFromName(Volumes& volumes, std::string_view mountPoint);

// The reference number of the local volume on the device, given by its path or BSD name, or 0.
[[nodiscard]] std::int16_t getVolumeReferenceUsingVolumeMountFromName(Volumes& volumes,
                                                                      std::string_view device);

// False for a locked HFS Plus or HFSX volume alone: any other volume, and what is no volume, counts
// as writable.
[[nodiscard]] bool GetVolumeWritable(Volumes& volumes, std::string_view mountPoint);

// Whether the first mount with the path's last component is of the type "hfs". False for a path
// that ends with a slash.
[[nodiscard]] bool GetVolumeHFS(Volumes& volumes, std::string_view path);

}  // namespace korvane
